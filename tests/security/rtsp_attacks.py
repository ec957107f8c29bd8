#!/usr/bin/env python3
"""What a hostile neighbour on the same network tries against a running
server, over loopback: each attack prints what it got, and the exit status
says whether the server held (0) or gave in (1).

    rtsp_attacks.py URL ATTACK [seconds]

Hostile connections come from 127.0.0.2 and up (every 127/8 address is this
host), the honest viewer (ffprobe, a real client) from 127.0.0.1. The tls
attack needs the server's TLS port in QZ_TLS_PORT.
"""
import base64
import os
import re
import secrets
import select
import socket
import ssl
import subprocess
import sys
import time
import warnings

URL = sys.argv[1]
HOST, PORT, PATH = re.match(r"rtsp://([^:/]+):(\d+)(/.*)", URL).groups()
PORT = int(PORT)
TLS_PORT = int(os.environ.get("QZ_TLS_PORT", "0"))
TLS_URL = f"rtsps://{HOST}:{TLS_PORT}{PATH}"


def say(text):
    print(text, flush=True)


def connect(source, timeout=3, port=PORT):
    s = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
    s.bind((source, 0))
    s.settimeout(timeout)
    s.connect((HOST, port))
    return s


def request(method, cseq, url=URL, extra=""):
    return f"{method} {url} RTSP/1.0\r\nCSeq: {cseq}\r\n{extra}\r\n".encode()


UNREAD = {}  # socket -> bytes received but not consumed yet


def answer(s, wait=3):
    """The next response on `s` (status, headers text), skipping interleaved
    frames; (-1, '') when closed, (-2, '') when nothing came in time."""
    data = UNREAD.pop(s, b"")
    end = time.time() + wait
    while True:
        while data.startswith(b"$") and len(data) >= 4:
            size = 4 + int.from_bytes(data[2:4], "big")
            if len(data) < size:
                break
            data = data[size:]
        head_end = data.find(b"\r\n\r\n")
        if not data.startswith(b"$") and head_end >= 0:
            head = data[:head_end].decode(errors="replace")
            UNREAD[s] = data[head_end + 4:]  # no answer here has a body
            return int(head.split()[1]), head
        left = end - time.time()
        if left <= 0:
            return -2, ""
        s.settimeout(left)
        try:
            chunk = s.recv(65536)
        except socket.timeout:
            return -2, ""
        except OSError:
            return -1, ""
        if not chunk:
            return -1, ""
        data += chunk


def session_of(head):
    m = re.search(r"^Session:\s*([^;\r\n]+)", head, re.M | re.I)
    return m.group(1).strip() if m else ""


def setup_tcp(s, tracks=1, url=URL):
    """SETUP of `tracks` tracks over TCP in a new session; its id."""
    session = ""
    for t in range(tracks):
        extra = f"Transport: RTP/AVP/TCP;unicast;interleaved={2 * t}-{2 * t + 1}\r\n"
        if session:
            extra += f"Session: {session}\r\n"
        s.sendall(request("SETUP", 10 + t, f"{url}/trackID={t}", extra))
        status, head = answer(s)
        if status != 200:
            raise RuntimeError(f"SETUP answered {status}")
        session = session_of(head)
    return session


def play_tcp(s, tracks=1, url=URL):
    """SETUP of `tracks` tracks over TCP and PLAY; the session id."""
    session = setup_tcp(s, tracks, url)
    s.sendall(request("PLAY", 20, url, f"Session: {session}\r\n"))
    status, _ = answer(s)
    if status != 200:
        raise RuntimeError(f"PLAY answered {status}")
    return session


def honest_viewer():
    """ffprobe from 127.0.0.1: True when it read the stream's description."""
    run = subprocess.run(["ffprobe", "-v", "error", "-rtsp_transport", "tcp", "-show_entries",
                          "stream=codec_name", "-of", "csv=p=0", URL],
                         capture_output=True, text=True, timeout=20)
    ok = run.returncode == 0 and "h264" in run.stdout
    if not ok:
        say(f"  ffprobe: exit {run.returncode}: {run.stderr.strip()[:200]}")
    return ok


def server_sockets():
    """(connections, bytes waiting in their kernel send queues) of the
    server's established connections (/proc/net/tcp*, tx_queue column)."""
    count = total = 0
    for name in ("/proc/net/tcp", "/proc/net/tcp6"):
        with open(name) as f:
            for line in f.readlines()[1:]:
                fields = line.split()
                local_port = int(fields[1].split(":")[-1], 16)
                if local_port == PORT and fields[3] == "01":  # ESTABLISHED
                    count += 1
                    total += int(fields[4].split(":")[0], 16)
    return count, total


class Hostile:
    """One hostile connection that keeps a slot by `pattern`, reconnecting
    whenever the server closes it."""

    def __init__(self, source, pattern):
        self.source, self.pattern, self.sock, self.cseq = source, pattern, None, 0
        self.connects = 0

    def tick(self):
        if self.sock is not None:
            try:
                readable, _, _ = select.select([self.sock], [], [], 0)
                if readable and not self.sock.recv(65536):
                    raise OSError("closed")
                self.cseq += 1
                if self.pattern == "crlf":
                    self.sock.sendall(b"\r\n")
                elif self.pattern == "options":
                    self.sock.sendall(request("OPTIONS", self.cseq, "*"))
                elif self.pattern == "slowloris":
                    self.sock.sendall(b"O")
            except OSError:
                self.sock.close()
                self.sock = None
        if self.sock is None:
            try:
                self.sock = connect(self.source, timeout=1)
                self.connects += 1
            except OSError:
                self.sock = None


def lockout(seconds):
    """64 hostile connections from 8 hosts, one pattern at a time; the honest
    viewer must get in on every try."""
    held = True
    for pattern in ("crlf", "options", "slowloris", "silent"):
        hostile = [Hostile(f"127.0.0.{2 + i // 8}", pattern) for i in range(64)]
        tries = ok = 0
        end = time.time() + seconds
        next_try = time.time() + 1
        while time.time() < end:
            for h in hostile:
                h.tick()
            if time.time() >= next_try:
                tries += 1
                ok += honest_viewer()
                next_try = time.time() + 1
            time.sleep(0.2)
        connects = sum(h.connects for h in hostile)
        say(f"lockout {pattern}: honest viewer got in {ok}/{tries}; hostile connects {connects}")
        held &= tries > 0 and ok == tries
        for h in hostile:
            if h.sock:
                h.sock.close()
    return held


def overlimit(seconds):
    """Every slot plays (64 players from 8 hosts); 200 more connections from
    other hosts, silent, must be refused within a few seconds rather than
    held."""
    players = []
    for i in range(64):
        s = connect(f"127.0.0.{2 + i // 8}")
        play_tcp(s)
        players.append(s)
    extra, answered = [], 0
    for i in range(200):
        try:
            extra.append(connect(f"127.0.1.{1 + i // 8}", timeout=1))
        except OSError:
            pass
    time.sleep(seconds)
    still_open = 0
    for s in extra:
        status, _ = answer(s, wait=0.2)
        answered += status == 503
        if status == -2:
            still_open += 1
        s.close()
    same_host = connect("127.0.0.2")
    same_host.sendall(request("OPTIONS", 1, "*"))
    cap_status, _ = answer(same_host)
    for s in players:
        s.close()
    say(f"overlimit: of 200 silent connections beyond 64 players, {answered} answered 503, "
        f"{still_open} still open after {seconds:g} s; a 9th connection from one host: "
        f"{cap_status}")
    return still_open == 0 and cap_status in (503, -1)


def pinned(seconds):
    """60 connections with 8 TCP sessions each that never read (but send
    RTCP): the kernel's send queues must stay under 64 MB."""
    conns = []
    for i in range(60):
        s = connect(f"127.0.2.{1 + i // 8}")
        s.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4096)
        sessions = [setup_tcp(s) for _ in range(8)]
        s.sendall(b"".join(request("PLAY", 20 + n, URL, f"Session: {session}\r\n")
                           for n, session in enumerate(sessions)))
        conns.append(s)
    rtcp = bytes([0x80, 201, 0, 1, 0, 0, 0, 9])  # an empty receiver report
    peak = 0
    end = time.time() + seconds
    while time.time() < end:
        for s in conns:
            try:
                s.sendall(b"$\x01\x00\x08" + rtcp)
            except OSError:
                pass
        peak = max(peak, server_sockets()[1])
        time.sleep(0.5)
    left = server_sockets()[0]
    for s in conns:
        s.close()
    say(f"pinned: 60 connections x 8 sessions that never read: peak send queues "
        f"{peak / 1e6:.1f} MB; after {seconds:g} s the server holds {left} connections")
    return peak < 64e6


def pauseplay(seconds):
    """A client that loops PAUSE/PLAY against one that just plays, both
    reading everything: the looper must get less than 3 times as much."""
    def drain(s):
        n = 0
        while select.select([s], [], [], 0)[0]:
            chunk = s.recv(1 << 20)
            if not chunk:
                break
            n += len(chunk)
        return n

    steady, looper = connect("127.0.0.2"), connect("127.0.0.3")
    play_tcp(steady, tracks=2)
    time.sleep(3)  # past the cached pictures
    drain(steady)
    session = play_tcp(looper, tracks=2)
    got_steady = got_looper = cseq = 0
    end = time.time() + seconds
    while time.time() < end:
        cseq += 2
        looper.sendall(request("PAUSE", cseq, URL, f"Session: {session}\r\n") +
                       request("PLAY", cseq + 1, URL, f"Session: {session}\r\n"))
        stop = time.time() + 0.1
        while time.time() < stop:
            got_looper += drain(looper)
            got_steady += drain(steady)
            time.sleep(0.005)
    ratio = got_looper / max(got_steady, 1)
    say(f"pauseplay: {seconds} s of PAUSE/PLAY every 100 ms got {got_looper / 1e6:.2f} MB, "
        f"a steady viewer {got_steady / 1e6:.2f} MB: {ratio:.2f} times")
    return ratio < 3


def udpsilence(seconds):
    """A UDP session whose ports never answer: media must stop after 20 s."""
    rtp = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    rtp.bind(("127.0.0.2", 0))  # media goes to the RTSP connection's address
    port = rtp.getsockname()[1]
    s = connect("127.0.0.2")
    s.sendall(request("SETUP", 1, f"{URL}/trackID=0",
                      f"Transport: RTP/AVP;unicast;client_port={port}-{port + 1}\r\n"))
    status, head = answer(s)
    session = session_of(head)
    s.sendall(request("PLAY", 2, URL, f"Session: {session}\r\n"))
    answer(s)
    start, first, last, count = time.time(), None, None, 0
    next_keepalive = start
    rtp.settimeout(0.5)
    while time.time() - start < seconds:
        if time.time() >= next_keepalive:  # the RTSP side stays alive
            s.sendall(request("GET_PARAMETER", 3, URL, f"Session: {session}\r\n"))
            next_keepalive += 10
        try:
            rtp.recv(65536)
            count += 1
            last = time.time() - start
            first = last if first is None else first
        except socket.timeout:
            pass
    say(f"udpsilence: {count} datagrams to ports that never answer, the last "
        f"{(last or 0):.1f} s after PLAY (of {seconds} s)")
    return last is not None and last < 22


def tunnel_half(source, method, cookie, body=b""):
    s = connect(source)
    s.sendall(f"{method} {PATH} HTTP/1.0\r\nx-sessioncookie: {cookie}\r\n"
              "Content-Length: 32767\r\n\r\n".encode() + base64.b64encode(body))
    return s


def http_status(s, wait=3):
    """The status of an HTTP answer on `s` (-1 closed, -2 nothing in time)."""
    s.settimeout(wait)
    try:
        data = s.recv(4096)
    except socket.timeout:
        return -2
    except OSError:
        return -1
    if not data:
        return -1
    UNREAD[s] = data[data.find(b"\r\n\r\n") + 4:]
    return int(data.split()[1])


def flowing(s, seconds=1.0):
    """Bytes that arrive on `s` within `seconds`."""
    n, end = len(UNREAD.pop(s, b"")), time.time() + seconds
    while time.time() < end:
        if select.select([s], [], [], 0.1)[0]:
            chunk = s.recv(1 << 20)
            if not chunk:
                break
            n += len(chunk)
    return n


def tunnel(seconds):
    """An HTTP tunnel (the publisher runs with --http-tunnel) that plays
    from 127.0.0.2, and what others do with its cookie: a POST and a second
    GET naming it from another host, a second POST from the same host, then
    half-open and broken tunnels from other hosts. The tunnel must keep
    playing through all of it, the others be refused, and the honest viewer
    get in."""
    get = tunnel_half("127.0.0.2", "GET", "victim")
    results = {"GET": http_status(get)}
    post = tunnel_half("127.0.0.2", "POST", "victim", request(
        "SETUP", 1, f"{URL}/trackID=0", "Transport: RTP/AVP/TCP;unicast;interleaved=0-1\r\n"))
    status, head = answer(get)
    post.sendall(base64.b64encode(request("PLAY", 2, URL, f"Session: {session_of(head)}\r\n")))
    results["SETUP, PLAY"] = (status, answer(get)[0])
    teardown = request("TEARDOWN", 3, URL, f"Session: {session_of(head)}\r\n")
    hijack = tunnel_half("127.0.0.3", "POST", "victim", teardown)
    results["POST from another host"] = http_status(hijack)
    results["GET from another host"] = http_status(tunnel_half("127.0.0.3", "GET", "victim"))
    results["second POST"] = http_status(tunnel_half("127.0.0.2", "POST", "victim", teardown))
    half_open = [tunnel_half(f"127.0.3.{1 + i // 8}", "GET" if i % 2 else "POST", f"half{i}")
                 for i in range(48)]
    broken = tunnel_half("127.0.0.4", "GET", "broken")
    bad_post = tunnel_half("127.0.0.4", "POST", "broken")
    bad_post.sendall(b"!!!!")
    results["broken GET, POST"] = (http_status(broken), answer(broken)[0], http_status(bad_post))
    huge = connect("127.0.0.5")
    huge.sendall(b"GET / HTTP/1.0\r\n" + b"X-Pad: " + b"a" * 100000 + b"\r\n")
    # 400, or a reset when the unread rest of the head arrives after the
    # answer; never left waiting.
    results["huge head"] = http_status(huge)
    time.sleep(seconds)
    honest = honest_viewer()
    flowing(get, 0.5)  # what waited while the others were tried
    still = flowing(get)
    for s in half_open:
        s.close()
    say("tunnel: " + "; ".join(f"{k} {v}" for k, v in results.items()) +
        f"; the tunnel then got {still} bytes in a second; honest viewer: {honest}")
    return (results["GET"] == 200 and results["SETUP, PLAY"] == (200, 200) and
            results["POST from another host"] == -1 and results["GET from another host"] == 403 and
            results["second POST"] == -1 and results["broken GET, POST"] == (200, 400, -1) and
            results["huge head"] in (400, -1) and still > 0 and honest)


def tls_context(tls_1_0=False):
    """A client context that checks no certificate; `tls_1_0`: one that
    offers TLS 1.0 only (OpenSSL 3 needs security level 0 for it)."""
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_CLIENT)
    context.check_hostname = False
    context.verify_mode = ssl.CERT_NONE
    if tls_1_0:
        with warnings.catch_warnings():
            warnings.simplefilter("ignore", DeprecationWarning)
            context.set_ciphers("DEFAULT:@SECLEVEL=0")
            context.minimum_version = ssl.TLSVersion.TLSv1
            context.maximum_version = ssl.TLSVersion.TLSv1
    return context


def drain(s):
    """Bytes read from `s` (plain or TLS) without waiting; -1 when closed."""
    n = 0
    try:
        while (isinstance(s, ssl.SSLSocket) and s.pending()) or select.select([s], [], [], 0)[0]:
            chunk = s.recv(1 << 20)
            if not chunk:
                return -1
            n += len(chunk)
    except (OSError, ssl.SSLError):
        return -1
    return n


class HostileTls:
    """A connection to the TLS port that stalls its handshake, sends garbage
    instead, or offers TLS 1.0 only; it connects again whenever the server
    closes it, and records how long each one lasted."""

    def __init__(self, source, kind):
        self.source, self.kind, self.sock, self.since = source, kind, None, 0
        self.lifetimes, self.handshakes = [], 0

    def tick(self):
        if self.sock is not None and drain(self.sock) < 0:
            self.lifetimes.append(time.time() - self.since)
            self.sock.close()
            self.sock = None
        if self.sock is not None:
            return
        try:
            self.sock = connect(self.source, timeout=2, port=TLS_PORT)
            self.since = time.time()
            if self.kind == "garbage":
                # A handshake record of 32 random bytes, whose message type
                # is anything but ClientHello (1): random bytes that begin a
                # ClientHello declaring up to 128 KiB (1 connection in about
                # 33 000, one attack run in 25) are, to any TLS server, a
                # hello still arriving, a stall closed at the request time
                # limit, not garbage to close at once.
                kind = 2 + secrets.randbelow(254)
                self.sock.sendall(b"\x16\x03\x01\x00\x20" + bytes([kind]) + os.urandom(31))
            elif self.kind == "tls1.0":
                try:
                    tls_context(tls_1_0=True).wrap_socket(self.sock).close()
                    self.handshakes += 1  # the server took TLS 1.0
                except (OSError, ssl.SSLError):
                    pass
                self.lifetimes.append(time.time() - self.since)
                self.sock.close()
                self.sock = None
        except OSError:
            self.sock = None


def tls(seconds):
    """A viewer plays over TLS (the publisher runs with --tls-port) while 40
    connections from five other hosts stall their handshakes, send garbage
    or offer TLS 1.0 only, reconnecting whenever they are closed. No TLS
    1.0 handshake may succeed; a stalled handshake must be closed within
    the request time limit (10 s, with a tick of slack), garbage at once;
    the viewer must get media every second and the honest viewer (plain
    RTSP) get in on every try."""
    viewer = tls_context().wrap_socket(connect("127.0.0.2", port=TLS_PORT))
    play_tcp(viewer, url=TLS_URL)
    kinds = ("stall", "garbage", "tls1.0")
    hostile = [HostileTls(f"127.0.4.{1 + i // 8}", kinds[i % 3]) for i in range(40)]
    per_second, tries, ok, probe = [0], 0, 0, None
    start = time.time()
    while time.time() - start < seconds:
        for h in hostile:
            h.tick()
        got = drain(viewer)
        per_second[-1] += max(got, 0)
        if time.time() - start >= len(per_second):
            per_second.append(0)
        if probe is None or probe.poll() is not None:
            if probe is not None:
                tries += 1
                ok += probe.returncode == 0 and b"h264" in probe.stdout.read()
            probe = subprocess.Popen(["ffprobe", "-v", "error", "-rtsp_transport", "tcp",
                                      "-show_entries", "stream=codec_name", "-of", "csv=p=0", URL],
                                     stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
        time.sleep(0.1)
    probe.wait(timeout=20)
    now = time.time()
    longest = {}
    for kind in kinds:
        lives = [t for h in hostile if h.kind == kind for t in h.lifetimes]
        lives += [now - h.since for h in hostile if h.kind == kind and h.sock is not None]
        longest[kind] = (len(lives), max(lives, default=0))
    handshakes = sum(h.handshakes for h in hostile)
    stalls = [h for h in hostile if h.kind == "stall"]
    closed = sum(1 for h in stalls if h.lifetimes)
    quiet = min(per_second[:-1], default=0)
    say("tls: " + "; ".join(f"{k}: {n} connections, longest {t:.1f} s"
                            for k, (n, t) in longest.items()) +
        f"; stalled handshakes closed {closed}/{len(stalls)}; TLS 1.0 handshakes that "
        f"succeeded: {handshakes}; the TLS viewer's slowest second {quiet} bytes; honest viewer "
        f"got in {ok}/{tries}")
    return (handshakes == 0 and longest["stall"][1] < 11.5 and longest["garbage"][1] < 3 and
            closed == len(stalls) and quiet > 0 and tries > 0 and ok == tries)


ATTACKS = {"lockout": (lockout, 8), "overlimit": (overlimit, 4), "pinned": (pinned, 6),
           "pauseplay": (pauseplay, 10), "udpsilence": (udpsilence, 30), "tunnel": (tunnel, 2),
           "tls": (tls, 14)}

if __name__ == "__main__":
    attack, default_seconds = ATTACKS[sys.argv[2]]
    seconds = float(sys.argv[3]) if len(sys.argv) > 3 else default_seconds
    sys.exit(0 if attack(seconds) else 1)
