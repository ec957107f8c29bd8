"""Fake RTSP relays on loopback for relay_attacks.py: a listening socket
whose every accepted connection runs a behaviour (a function of one Peer)
in a thread of its own, and what the relay saw of the publisher: when each
connection came and went, the requests, the interleaved and UDP media.

Times are seconds on the monotonic clock since this module was loaded, the
clock relay_attacks.py stamps the publisher's log lines with.
"""
import os
import select
import socket
import threading
import time
import traceback

T0 = time.monotonic()
REASONS = {200: "OK", 401: "Unauthorized", 403: "Forbidden", 500: "Internal Server Error"}
PUBLIC = "OPTIONS, ANNOUNCE, SETUP, RECORD, TEARDOWN, GET_PARAMETER"


def now():
    return time.monotonic() - T0


class Message:
    """A request or a response of the publisher, or one interleaved frame."""

    def __init__(self, kind, **fields):
        self.kind, self.method, self.uri, self.status = kind, "", "", 0
        self.headers, self.body, self.channel, self.payload = {}, b"", -1, b""
        self.__dict__.update(fields)

    def header(self, name, default=""):
        return self.headers.get(name.lower(), default)


class Peer:
    """One connection of the publisher, as the relay sees it."""

    def __init__(self, relay, sock, index):
        self.relay, self.sock, self.index = relay, sock, index
        self.buf = b""
        self.accepted = now()
        self.closed = None  # when the publisher closed it (read an end)
        self.dropped = None  # when the relay closed it
        self.requests = []  # (time, method) of each request of the publisher
        self.responses = {}  # CSeq of a request of the relay -> status
        self.tracks = []  # (kind, control) from the ANNOUNCEd SDP
        self.channel_kind = {}  # interleaved RTP channel -> "video"/"audio"
        self.udp = {}  # UDP socket of the relay -> "video"/"audio"
        self.media = {}  # kind -> arrival times of its RTP packets
        self.first = {}  # kind -> the first RTP packet
        self.other_frames = {}  # channel -> frames on channels no SETUP gave
        self.recording_at = None  # when RECORD was answered 200

    def log(self, text):
        self.relay.log(f"conn {self.index}: {text}")

    def send(self, data):
        """Sends all of `data`; False (and the connection marked closed)
        when the publisher closed it first."""
        try:
            self.sock.sendall(data)
            return True
        except OSError as e:
            self.mark_closed(f"send failed: {e}")
            return False

    def mark_closed(self, why):
        if self.closed is None and self.dropped is None:
            self.closed = now()
            self.log(f"closed by the publisher ({why})")

    def drop(self):
        """Closes the connection from the relay's side."""
        if self.dropped is None and self.closed is None:
            self.dropped = now()
            self.log("closed by the relay")
        try:
            self.sock.close()
        except OSError:
            pass

    def read(self, timeout):
        """The next message; "timeout" when none came in time, None when the
        connection is over (or the test is). UDP datagrams that arrive
        meanwhile are counted as media."""
        end = time.monotonic() + timeout
        while True:
            message = self._parse()
            if message is not None:
                return message
            if self.closed is not None or self.dropped is not None or self.relay.stop.is_set():
                return None
            left = end - time.monotonic()
            if left <= 0:
                return "timeout"
            ready, _, _ = select.select([self.sock] + list(self.udp), [], [], min(left, 0.2))
            for s in ready:
                if s is not self.sock:
                    self._rtp(self.udp[s], s.recv(65536))
                    continue
                try:
                    chunk = self.sock.recv(65536)
                except OSError as e:
                    self.mark_closed(f"recv failed: {e}")
                    return None
                if not chunk:
                    self.mark_closed("end of stream")
                    return None
                self.buf += chunk

    def next_request(self, timeout=30):
        """The next request of the publisher (frames and responses counted
        on the way); None when there is none."""
        while True:
            message = self.read(timeout)
            if message is None or message == "timeout":
                return None
            if message.kind == "request":
                return message

    def drain(self, seconds=1e9):
        """Reads and forgets until the publisher closes (True) or the time
        or the test is over (False)."""
        end = time.monotonic() + seconds
        while time.monotonic() < end:
            if self.read(min(0.5, max(end - time.monotonic(), 0.01))) is None:
                return self.closed is not None
        return False

    def _rtp(self, kind, packet):
        self.media.setdefault(kind, []).append(now())
        self.first.setdefault(kind, packet)

    def _parse(self):
        b = self.buf
        if b.startswith(b"$"):
            if len(b) < 4 or len(b) < 4 + int.from_bytes(b[2:4], "big"):
                return None
            size = 4 + int.from_bytes(b[2:4], "big")
            frame = Message("frame", channel=b[1], payload=b[4:size])
            self.buf = b[size:]
            if frame.channel in self.channel_kind:
                self._rtp(self.channel_kind[frame.channel], frame.payload)
            elif frame.channel - 1 not in self.channel_kind:  # not RTCP either
                self.other_frames[frame.channel] = self.other_frames.get(frame.channel, 0) + 1
            return frame
        end = b.find(b"\r\n\r\n")
        if end < 0:
            return None
        lines = b[:end].decode("latin-1").split("\r\n")
        headers = {}
        for line in lines[1:]:
            name, _, value = line.partition(":")
            headers[name.strip().lower()] = value.strip()
        length = int(headers.get("content-length", "0"))
        if len(b) < end + 4 + length:
            return None
        body, self.buf = b[end + 4:end + 4 + length], b[end + 4 + length:]
        first = lines[0].split(" ")
        if first[0].startswith("RTSP/"):
            response = Message("response", status=int(first[1]), headers=headers, body=body)
            self.responses[headers.get("cseq", "")] = response.status
            return response
        self.requests.append((now(), first[0]))
        return Message("request", method=first[0], uri=first[1], headers=headers, body=body)


def response(request, status=200, headers=(), body=b""):
    """The bytes of an answer to `request`, its CSeq echoed."""
    lines = [f"RTSP/1.0 {status} {REASONS.get(status, 'Status')}",
             f"CSeq: {request.header('CSeq', '0')}"] + list(headers)
    if body:
        lines.append(f"Content-Length: {len(body)}")
    return ("\r\n".join(lines) + "\r\n\r\n").encode() + body


def sdp_tracks(sdp):
    """(kind, control) of each media section of an SDP."""
    tracks = []
    for line in sdp.decode(errors="replace").splitlines():
        if line.startswith("m="):
            tracks.append([line[2:].split()[0], ""])
        elif line.startswith("a=control:") and tracks:
            tracks[-1][1] = line[len("a=control:"):].strip()
    return [tuple(t) for t in tracks]


def track_of(peer, uri):
    """Index and kind of the track a SETUP names."""
    for i, (kind, control) in enumerate(peer.tracks):
        if control and uri.endswith(control):
            return i, kind
    raise RuntimeError(f"SETUP of {uri}: no such track in the SDP {peer.tracks}")


def good_answer(peer, request, timeout_s=60, channel_base=None, session=True, transport=True):
    """What a conforming relay answers (recording whatever is ANNOUNCEd).
    channel_base: interleaved channels of the relay's own choosing (track
    i gets base + 2i), else those asked for."""
    m = request.method
    if m == "OPTIONS":
        return response(request, 200, [f"Public: {PUBLIC}"])
    if m == "ANNOUNCE":
        peer.tracks = sdp_tracks(request.body)
        return response(request)
    session_header = [f"Session: 6A1F{peer.index:04d};timeout={timeout_s}"] if session else []
    if m == "SETUP":
        index, kind = track_of(peer, request.uri)
        asked = request.header("Transport")
        if "interleaved=" in asked:
            rtp = int(asked.split("interleaved=")[1].split("-")[0])
            if channel_base is not None:
                rtp = channel_base + 2 * index
            peer.channel_kind[rtp] = kind
            answer = f"RTP/AVP/TCP;unicast;interleaved={rtp}-{rtp + 1};mode=record"
        else:
            rtp_sock, rtcp_sock = udp_pair()
            peer.udp[rtp_sock] = kind
            peer.udp[rtcp_sock] = "rtcp"
            client = asked.split("client_port=")[1].split(";")[0]
            answer = (f"RTP/AVP;unicast;client_port={client};server_port="
                      f"{rtp_sock.getsockname()[1]}-{rtcp_sock.getsockname()[1]};mode=record")
        transport_header = [f"Transport: {answer}"] if transport else []
        return response(request, 200, session_header + transport_header)
    if m == "RECORD":
        peer.recording_at = now()
        peer.log("recording")
    return response(request, 200, session_header)


def udp_pair():
    rtp = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    rtp.bind(("127.0.0.1", 0))
    rtcp = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    rtcp.bind(("127.0.0.1", 0))
    return rtp, rtcp


def serve(peer, answer=good_answer, until_recording=False):
    """Answers every request with answer(peer, request) (bytes, or None for
    no answer) until the connection ends or, with until_recording, RECORD
    was answered. True when recording."""
    while True:
        request = peer.next_request()
        if request is None:
            return False
        data = answer(peer, request)
        if data is not None and not peer.send(data):
            return False
        if until_recording and peer.recording_at is not None:
            return True


def h264_key(rtp):
    """Whether an H.264 RTP packet starts a key frame: an SPS, a PPS or an
    IDR slice, alone, first in a STAP-A or starting a FU-A."""
    if len(rtp) < 13:
        return False
    start = 12 + 4 * (rtp[0] & 0x0F)
    if rtp[0] & 0x10:  # a header extension
        start += 4 + 4 * int.from_bytes(rtp[start + 2:start + 4], "big")
    if start + 3 >= len(rtp):
        return False
    nal = rtp[start] & 0x1F
    if nal == 24:
        nal = rtp[start + 3] & 0x1F
    elif nal == 28:
        nal = rtp[start + 1] & 0x1F if rtp[start + 1] & 0x80 else 0
    return nal in (5, 7, 8)


class Relay:
    """A fake relay on 127.0.0.1: runs behaviour(peer) for each connection."""

    def __init__(self, name, behaviour, rcvbuf=0):
        self.name, self.behaviour = name, behaviour
        self.listener = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
        if rcvbuf:  # before listen(): accepted sockets take it, window scale included
            self.listener.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, rcvbuf)
        self.listener.bind(("127.0.0.1", 0))
        self.listener.listen(16)
        self.port = self.listener.getsockname()[1]
        self.peers, self.events, self.errors = [], [], []
        self.faults = 0  # requests of the publisher that broke a rule the behaviour checks
        self.stop = threading.Event()
        self.threads = [threading.Thread(target=self._accept, daemon=True)]
        self.threads[0].start()

    def log(self, text):
        self.events.append(f"{now():8.3f} {self.name}: {text}")

    def _accept(self):
        self.listener.settimeout(0.1)
        while not self.stop.is_set():
            try:
                sock, _ = self.listener.accept()
            except socket.timeout:
                continue
            except OSError:
                return
            peer = Peer(self, sock, len(self.peers) + 1)
            self.peers.append(peer)
            peer.log("accepted")
            thread = threading.Thread(target=self._run, args=(peer,), daemon=True)
            self.threads.append(thread)
            thread.start()

    def _run(self, peer):
        try:
            self.behaviour(peer)
        except Exception:  # a fault of the test itself: the case fails with it
            self.errors.append(traceback.format_exc())
            self.log("behaviour raised: " + traceback.format_exc().strip().splitlines()[-1])

    def close(self):
        self.stop.set()
        self.listener.close()
        for thread in self.threads:
            thread.join(timeout=3)
        for peer in self.peers:
            for s in [peer.sock] + list(peer.udp):
                s.close()


def random_garbage(size):
    """Binary bytes that are no RTSP message and no interleaved frame (the
    first byte is not '$' nor a line end), ended by a blank line so that a
    parser judges them at once rather than waiting for more."""
    data = bytearray(os.urandom(size))
    while data[0] in b"$\r\n":
        data[0] = os.urandom(1)[0]
    return bytes(data) + b"\r\n\r\n"
