"""The fake relays' behaviours for relay_attacks.py, one function of a Peer
each, and the checks that only some cases make (a function of the relay
and the failures the publisher logged about it: (ok, what it found))."""
import os
import time

from relay_fakes import good_answer, now, response, serve

STALL_S = RESPONSE_S = 10.0  # the pusher's write-stall and response timeouts
# The relay stamps an accept or its answer to RECORD a thread switch after
# the publisher's clock saw it: spans from there may come out this short.
SLACK = 0.1
PROVEN_S = 31  # a recording this long starts the back-off again at 1 s


# ---- behaviours: one function of a Peer each ----------------------------------------

def answer_first_with(make):
    """Answers the first request with make(request), then reads until the
    publisher closes the connection."""
    def behaviour(peer):
        request = peer.next_request()
        if request is not None and peer.send(make(request)):
            peer.log(f"answered {request.method} with its bad response")
        peer.drain()
    return behaviour


def huge_header(peer):
    """A header block of 1 MB that never ends."""
    request = peer.next_request()
    if request is None:
        return
    data = f"RTSP/1.0 200 OK\r\nCSeq: {request.header('CSeq')}\r\n".encode()
    sent = 0
    while sent < 1 << 20 and peer.send(data):
        sent += len(data)
        data = (b"X-Pad: " + b"p" * 1000 + b"\r\n") * 16
    peer.log(f"sent {sent} bytes of header")
    peer.drain()


def endless_body(length):
    def behaviour(peer):
        request = peer.next_request()
        if request is None:
            return
        chunk = b"b" * 65536
        ok = peer.send(response(request, 200, [f"Content-Length: {length}"]))
        sent, end = 0, time.monotonic() + 20
        while ok and time.monotonic() < end and sent < 100 << 20:
            ok = peer.send(chunk)
            sent += len(chunk)
        peer.log(f"sent {sent} bytes of body")
        peer.drain()
    return behaviour


def trickle(peer):
    """A well-formed answer, one byte every half second (20 s in all)."""
    request = peer.next_request()
    if request is None:
        return
    for byte in response(request, 200, ["Public: OPTIONS, ANNOUNCE, SETUP, RECORD"]):
        if not peer.send(bytes([byte])) or peer.read(0.5) is None:
            break
    peer.drain()


def answer_with(special):
    """A conforming relay but for the methods in `special`: method -> a
    function of (peer, request) that returns the answer."""
    def behaviour(peer):
        serve(peer, lambda p, r: special[r.method](p, r) if r.method in special
              else good_answer(p, r))
    return behaviour


def challenge(nonce=""):
    return f'WWW-Authenticate: Digest realm="relay", nonce="{nonce or os.urandom(8).hex()}"'


def challenge_forever(peer):
    """Every request answered 401 with a new nonce (at most 500 on one
    connection, then silence: a bound for the test, not the publisher).
    Each request after the first must answer the last challenge."""
    answered, nonce = 0, ""
    while answered < 500:
        request = peer.next_request()
        if request is None:
            break
        if nonce and f'nonce="{nonce}"' not in request.header("Authorization"):
            peer.relay.faults += 1
            peer.log(f"{request.method} without an answer to nonce {nonce}: "
                     f"{request.header('Authorization')!r}")
        nonce = os.urandom(8).hex()
        if not peer.send(response(request, 401, [challenge(nonce)])):
            break
        answered += 1
    peer.log(f"challenged {answered} requests")
    peer.drain()


def never_reads(peer):
    """Records, then never reads again: its receive window fills. When the
    publisher comes back, this connection is read to its end, which shows
    that the publisher closed it."""
    if not serve(peer, until_recording=True):
        return
    while len(peer.relay.peers) == peer.index and not peer.relay.stop.is_set():
        time.sleep(0.1)
    if not peer.relay.stop.is_set() and not peer.drain(5):
        peer.log("still open 5 s after the publisher came back")


def record_then_close(peer):
    if serve(peer, until_recording=True):
        peer.drop()


def close_at_once(peer):
    peer.drop()


def proven_then_drops(peer):
    """Refuses the first two pushes (ANNOUNCE 403), records the third for
    PROVEN_S, then drops it and refuses again."""
    refuse = answer_with({"ANNOUNCE": lambda p, r: response(r, 403)})
    if peer.index != 3:
        return refuse(peer)
    if serve(peer, until_recording=True) and peer.drain(PROVEN_S) is False:
        peer.drop()


def chatty(peer):
    """A good relay that also sends RTCP receiver reports (every second)
    and requests of its own while it records: OPTIONS 3 s after RECORD,
    SET_PARAMETER after 6 s."""
    rr = bytes([0x80, 201, 0, 1, 0x52, 0x45, 0x4C, 0x59])  # V=2, empty RR
    if not serve(peer, lambda p, r: good_answer(p, r, timeout_s=10), until_recording=True):
        return
    rtcp = min(peer.channel_kind) + 1
    asks = {3.0: "OPTIONS", 6.0: "SET_PARAMETER"}
    next_rr = 0.0
    while True:
        age = now() - peer.recording_at
        if age >= next_rr:
            next_rr += 1.0
            peer.send(b"$" + bytes([rtcp, 0, len(rr)]) + rr)
        for at, method in list(asks.items()):
            if age >= at:
                del asks[at]
                cseq = 9000 + int(at)
                peer.send(f"{method} rtsp://127.0.0.1/phone RTSP/1.0\r\nCSeq: {cseq}\r\n\r\n"
                          .encode())
                peer.log(f"asked {method} (CSeq {cseq})")
        message = peer.read(0.1)
        if message is None:
            return
        if message != "timeout" and message.kind == "request":
            peer.send(good_answer(peer, message, timeout_s=10))


def mute_after_record(peer):
    """Records (UDP) and still reads, but answers nothing any more."""
    if serve(peer, lambda p, r: good_answer(p, r, timeout_s=10), until_recording=True):
        peer.drain()


# ---- checks that only some cases make --------------------------------------------------

def chatty_check(relay, fails):
    peer = relay.peers[0]
    keepalives = sum(1 for _, m in peer.requests if m in ("GET_PARAMETER", "OPTIONS")) - 1
    answers = peer.responses.get("9003"), peer.responses.get("9006")
    ok = answers[0] == 200 and answers[1] is not None and keepalives >= 3
    return ok, (f"its OPTIONS answered {answers[0]}, SET_PARAMETER {answers[1]}; "
                f"{keepalives} keep-alives")


def auth_check(relay, fails):
    """One new try per request, which answers the challenge."""
    most = max(len(p.requests) for p in relay.peers)
    return most <= 2 and relay.faults == 0, (
        f"at most {most} requests on one connection, {relay.faults} of them without "
        "an answer to the challenge before")


def stall_check(relay, fails):
    """Each stalled connection ended STALL_S (+ the time the buffers took to
    fill, + a tick) after RECORD, and read to its end it was closed."""
    spans, ok = [], True
    for peer, (t, _, _) in zip(relay.peers, fails):
        if peer.recording_at is None:
            return False, f"conn {peer.index} never recorded"
        spans.append(t - peer.recording_at)
        ok &= STALL_S - SLACK <= spans[-1] <= STALL_S + 4 and peer.closed is not None
    return ok, "failed " + ", ".join(f"{s:.1f}" for s in spans) + " s after RECORD"


def channels_check(relay, fails):
    stray = {c: n for p in relay.peers for c, n in p.other_frames.items()}
    return not stray, f"frames on channels the relay did not give: {stray or 'none'}"
