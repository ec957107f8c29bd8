#!/usr/bin/env python3
"""Hostile relays against the publisher's push (--push): fake relays on
loopback that break the RTSP dialogue in one way each, against one real
publisher per transport that pushes to all of them at once. Every case must
leave the publisher unharmed (alive, exit 0, its source never held up), be
logged with its reason and tried again with back-off; where the relay
behaved well enough, media must arrive, starting at a key frame.

    relay_attacks.py PUBLISH WORKDIR [SECONDS] [CASE...]

WORKDIR receives pub-tcp.out (the publisher's log, each line stamped with
the time it arrived), pub-tcp.err (status lines, summary), the same for
udp, and relays.log. A failing case prints its relay's events and the
publisher's lines about it. One misbehaving relay that harms the whole
publisher fails the publisher's checks; running fewer cases names it.
"""
import os
import re
import subprocess
import sys
import threading
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from relay_behaviours import (RESPONSE_S, SLACK, answer_first_with, answer_with,  # noqa: E402
                              auth_check, challenge, challenge_forever, channels_check, chatty,
                              chatty_check, close_at_once, endless_body, huge_header,
                              mute_after_record, never_reads, proven_then_drops, record_then_close,
                              stall_check, trickle)
from relay_fakes import Relay, good_answer, h264_key, now, random_garbage, response  # noqa: E402

FPS = 25
BACKOFF = [1, 2, 4, 8, 16, 30]


def case(name, behaviour, reason=None, delays=BACKOFF, min_fails=5, lasts=(0, 2), media=False,
         check=None, udp=False, credentials=False, rcvbuf=0):
    """reason: what every failure must say (None: no failure at all);
    delays: the back-off expected after failure 1, 2, ...; lasts: seconds
    from each failed connection's accept to its failure (None: any); media:
    each connection that recorded must get video from a key frame on."""
    return dict(name=name, behaviour=behaviour, reason=reason, delays=delays, min_fails=min_fails,
                lasts=lasts, media=media, check=check, udp=udp, credentials=credentials,
                rcvbuf=rcvbuf)


MALFORMED = "the relay sent a malformed message: "
CASES = [
    case("http_status",
         answer_first_with(lambda r: b"HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n"),
         MALFORMED + "malformed request line"),
    case("code_2000", answer_first_with(
        lambda r: f"RTSP/1.0 2000 OK\r\nCSeq: {r.header('CSeq')}\r\n\r\n".encode()),
        MALFORMED + "malformed status line"),
    case("garbage", answer_first_with(lambda r: random_garbage(512)), MALFORMED),
    case("huge_header", huge_header, MALFORMED + "header block too large"),
    case("long_line", answer_first_with(lambda r: response(r, 200, ["X-Long: " + "l" * 100000])),
         MALFORMED + "(line too long|header block too large)"),
    case("endless_body", endless_body(10**9), MALFORMED + "bad Content-Length"),
    case("big_body", endless_body(10**9 - 1), MALFORMED + "body too large"),
    case("trickle", trickle, "no answer to OPTIONS within 10000 ms", min_fails=3,
         lasts=(RESPONSE_S - SLACK, RESPONSE_S + 1)),
    case("silent", lambda peer: peer.drain(), "no answer to OPTIONS within 10000 ms",
         min_fails=3, lasts=(RESPONSE_S - SLACK, RESPONSE_S + 1)),
    case("close_at_once", close_at_once,
         "the relay closed the connection|Connection reset by peer|Broken pipe"),
    case("announce_403", answer_with({"ANNOUNCE": lambda p, r: response(r, 403)}),
         "ANNOUNCE answered 403 Forbidden"),
    case("announce_500", answer_with({"ANNOUNCE": lambda p, r: response(r, 500)}),
         "ANNOUNCE answered 500 Internal Server Error"),
    case("setup_no_session", answer_with({"SETUP": lambda p, r: good_answer(p, r, session=False)}),
         "SETUP answered without a session"),
    # Over TCP the channels asked for are taken when the answer names none.
    case("setup_no_transport",
         answer_with({"SETUP": lambda p, r: good_answer(p, r, transport=False)}), media=True),
    case("auth_no_challenge", answer_with({"OPTIONS": lambda p, r: response(r, 401)}),
         "OPTIONS answered 401 without a challenge", credentials=True),
    case("auth_no_credentials",
         answer_with({"OPTIONS": lambda p, r: response(r, 401, [challenge()])}),
         "OPTIONS answered 401: the relay wants credentials and none were given"),
    case("auth_forever", challenge_forever, "answered 401: the relay refused the credentials",
         check=auth_check, credentials=True),
    case("never_reads", never_reads, "the relay has taken nothing for 10000 ms", min_fails=3,
         lasts=None, media=True, check=stall_check, rcvbuf=4096),
    case("record_then_close", record_then_close,
         "the relay closed the connection|Connection reset by peer|Broken pipe"),
    case("proven_then_drops", proven_then_drops, "ANNOUNCE answered 403 Forbidden|the relay "
         "closed the connection|Connection reset by peer|Broken pipe", delays=[1, 2, 1, 2, 4, 8],
         min_fails=4, lasts=None, media=True),
    case("chatty", chatty, media=True, check=chatty_check),
    case("other_channels", answer_with({"SETUP": lambda p, r: good_answer(p, r, channel_base=6)}),
         media=True, check=channels_check),
    case("udp_no_transport",
         answer_with({"SETUP": lambda p, r: good_answer(p, r, transport=False)}),
         "SETUP answered without a Transport", udp=True),
    case("udp_no_server_port", answer_with({"SETUP": lambda p, r: response(r, 200, [
        "Session: 77", "Transport: RTP/AVP;unicast;" + re.search(r"client_port=[0-9-]+",
                                                                r.header("Transport"))[0]])}),
        r"SETUP answered without the relay's UDP ports \(server_port\)", udp=True),
    # Keep-alives every 5 s (timeout=10): the first unanswered one fails.
    case("udp_mute", mute_after_record, "no answer to GET_PARAMETER within 10000 ms",
         min_fails=2, lasts=(5 + RESPONSE_S - SLACK, 5 + RESPONSE_S + 1.5), media=True, udp=True),
]


# ---- the publisher --------------------------------------------------------------------

FAIL_LINE = re.compile(r"\[E\] QZRtspPusher rtsp://127\.0\.0\.1:(\d+)/\S*: (.*); next attempt in "
                       r"(\d+) s$")
PUSH_SUMMARY = re.compile(r"^push rtsp://127\.0\.0\.1:(\d+)/\S*: ([^,]+), (\d+) attempts, "
                          r"(\d+) recordings, (\d+) packets sent")
SOURCE_SUMMARY = re.compile(r"^source: (\d+) video frames, (\d+) dropped by the source")


class Publisher:
    """One qz_rtsp_publish that pushes to every relay of `cases` (all over
    TCP or all over UDP), for `seconds`; its log lines stamped on arrival."""

    def __init__(self, publish, workdir, label, cases, seconds):
        self.label, self.seconds, self.lines = label, seconds, []
        self.out_path = os.path.join(workdir, f"pub-{label}.out")
        self.err_path = os.path.join(workdir, f"pub-{label}.err")
        args = [publish, "--servers", "0", "--size", "320x240", "--fps", str(FPS), "--bitrate",
                "500", "-t", str(seconds)]
        if label == "udp":
            args += ["--push-transport", "udp"]
        for c in cases:
            user = "pusher:secret@" if c["credentials"] else ""
            args += ["--push", f"rtsp://{user}127.0.0.1:{c['relay'].port}/phone"]
        self.started = now()
        self.process = subprocess.Popen(args, stdout=subprocess.PIPE,
                                        stderr=open(self.err_path, "w"), text=True)
        self.reader = threading.Thread(target=self._read, daemon=True)
        self.reader.start()

    def _read(self):
        with open(self.out_path, "w") as out:
            for line in self.process.stdout:
                self.lines.append((now(), line.rstrip("\n")))
                out.write(f"{now():8.3f} {line}")
                out.flush()

    def announced(self, timeout=10):
        """Waits until the stream was announced (its URL printed)."""
        end = time.monotonic() + timeout
        while time.monotonic() < end and self.process.poll() is None:
            if any(line.startswith("rtsp://") for _, line in self.lines):
                return
            time.sleep(0.05)

    def drops(self):
        """(second of the run, frames the source dropped in it) from the
        status lines, for the seconds with drops."""
        out, before = [], 0
        for line in self.err:
            m = re.match(r"\[(\d+):(\d+):(\d+)\] video \d+ frames .*?(\d+) dropped by the source",
                         line)
            if m and int(m[4]) != before:
                out.append((int(m[1]) * 3600 + int(m[2]) * 60 + int(m[3]), int(m[4]) - before))
                before = int(m[4])
        return out

    def wait(self):
        """Problems of the publisher as a whole, and the time it ended."""
        problems = []
        try:
            code = self.process.wait(timeout=self.seconds + 20)
        except subprocess.TimeoutExpired:
            self.process.kill()
            code = self.process.wait()
            problems.append(f"still running {self.seconds + 20} s after its start: killed")
        self.ended = now()
        self.reader.join(timeout=5)
        if code != 0:
            problems.append(f"exit code {code}" + (f" (signal {-code})" if code < 0 else ""))
        self.err = open(self.err_path).read().splitlines()
        self.pushes = {int(m[1]): m for m in map(PUSH_SUMMARY.match, self.err) if m}
        source = next(filter(None, map(SOURCE_SUMMARY.match, self.err)), None)
        if source is None:
            problems.append("no summary of its source at exit")
        else:
            # The first second is the publisher's own start: under a
            # sanitizer on a loaded machine it can cost a frame with no
            # relay at all (seen pushing to a closed port). Every relay
            # acts again later, where nothing is forgiven.
            frames, dropped, drops = int(source[1]), int(source[2]), self.drops()
            start = sum(n for second, n in drops if second <= 1)
            if dropped - min(start, 2) != 0 or frames < FPS * (self.seconds - 1):
                # The other publisher's drops in the same seconds point at
                # the machine rather than at a relay.
                problems.append(f"its source encoded {frames} video frames in {self.seconds} s at "
                                f"{FPS} fps and dropped {dropped}: the encoder was held up ("
                                + (", ".join(f"{n} in second {second}" for second, n in drops)
                                   or "no drop in the status lines") + ")")
        return problems


# ---- the verdict on one case ------------------------------------------------------------

def media_problems(c, peers, end):
    """Every connection that recorded got video from a key frame on; where
    the relay kept reading, every second of it."""
    problems = []
    for p in peers:
        if p.recording_at is None or (c["name"] == "never_reads" and p is peers[-1]):
            continue  # the last stalled connection is never read
        video = p.media.get("video", [])
        if not video:
            problems.append(f"conn {p.index}: recorded, but no video arrived")
            continue
        if not h264_key(p.first["video"]):
            problems.append(f"conn {p.index}: the first video packet starts no key frame")
        if c["name"] == "never_reads":
            continue
        span = min(t for t in (p.closed, p.dropped, end) if t is not None) - p.recording_at
        gaps = [b - a for a, b in zip(video, video[1:])]
        if len(video) < 0.8 * FPS * (span - 1) or max(gaps, default=0) > 1.0:
            problems.append(f"conn {p.index}: {len(video)} video packets in {span:.1f} s of "
                            f"recording, longest gap {max(gaps, default=0):.2f} s")
    return problems


def judge(c, publisher):
    """(problems, a line of what happened) of case `c`."""
    relay, problems = c["relay"], []
    peers = relay.peers
    fails = [(t, m[2], int(m[3])) for t, m in
             ((t, FAIL_LINE.search(line)) for t, line in publisher.lines)
             if m and int(m[1]) == relay.port]
    problems += [f"the fake relay itself failed:\n{e}" for e in relay.errors]
    if c["reason"] is None and fails:
        problems.append(f"{len(fails)} failures, none expected")
    if c["reason"] is not None:
        wrong = sorted({why for _, why, _ in fails if not re.search(c["reason"], why)})
        if wrong:
            problems.append(f"failures whose reason is not /{c['reason']}/: {wrong}")
        if len(fails) < c["min_fails"]:
            problems.append(f"{len(fails)} failures logged, at least {c['min_fails']} expected")
    lived = [t - p.accepted for p, (t, _, _) in zip(peers, fails)]
    if c["lasts"] and not all(c["lasts"][0] <= s <= c["lasts"][1] for s in lived):
        problems.append("connections failed " + ", ".join(f"{s:.2f}" for s in lived) +
                        f" s after their accept, expected {c['lasts'][0]} to {c['lasts'][1]} s")
    delays = [d for _, _, d in fails]
    if delays != c["delays"][:len(delays)]:
        problems.append(f"back-off {delays}, expected {c['delays'][:len(delays)]}")
    # Measured on the relay's side: each attempt came as long after the
    # failure before it as the publisher said (its tick is 250 ms).
    waited = []
    for i, (t, _, d) in enumerate(fails):
        if i + 1 < len(peers):
            waited.append(peers[i + 1].accepted - t)
            if not d - 0.1 <= waited[-1] <= d + 0.8:
                problems.append(f"attempt {i + 2} came {waited[-1]:.2f} s after failure "
                                f"{i + 1}, whose log said {d} s")
        elif t + d + 0.8 < publisher.ended - 1:
            problems.append(f"no attempt came after failure {i + 1} (due at {t + d:.1f} s)")
    summary = publisher.pushes.get(relay.port)
    if summary is None:
        problems.append("no summary line of this push at exit")
    elif not int(summary[3]) <= len(peers) <= int(summary[3]) + 1:
        problems.append(f"the publisher counted {summary[3]} attempts, the relay "
                        f"{len(peers)} connections")
    elif c["reason"] is None and (summary[2] != "recording" or len(peers) != 1):
        problems.append(f"state {summary[2]!r} at exit after {len(peers)} connections, "
                        "expected one recording")
    if c["media"]:
        problems += media_problems(c, peers, publisher.ended)
    extra = ""
    if c["check"] and peers:
        ok, extra = c["check"](relay, fails)
        if not ok:
            problems.append(extra)
    video = sum(len(p.media.get("video", [])) for p in peers)
    start = publisher.started
    return problems, (f"{len(peers)} connections at "
                      + ", ".join(f"{p.accepted - start:.1f}" for p in peers[:8])
                      + (" ..." if len(peers) > 8 else "") + " s"
                      + (f"; {len(fails)} failures ({fails[0][1]}) {min(lived):.2f} to "
                         f"{max(lived):.2f} s after their accept" if fails else "")
                      + (f"; waited {', '.join(f'{w:.2f}' for w in waited[:6])} s"
                         if waited else "")
                      + (f"; {video} video packets" if video else "")
                      + (f"; {extra}" if extra else ""))


def main():
    publish, workdir = sys.argv[1], sys.argv[2]
    rest = sys.argv[3:]
    seconds = int(rest.pop(0)) if rest and rest[0].isdigit() else 45
    unknown = set(rest) - {c["name"] for c in CASES}
    if unknown:
        sys.exit(f"no such case: {', '.join(sorted(unknown))}")
    cases = [c for c in CASES if not rest or c["name"] in rest]
    for c in cases:
        c["relay"] = Relay(c["name"], c["behaviour"], c["rcvbuf"])
    publishers = {}
    for label in ("tcp", "udp"):
        mine = [c for c in cases if c["udp"] == (label == "udp")]
        if mine:
            # One after the other: two starting at once (encoders, a
            # sanitizer's runtime) can take the CPU from each other's source.
            for started in publishers.values():
                started.announced()
            publishers[label] = Publisher(publish, workdir, label, mine, seconds)
    failed = passed = 0
    verdicts = []  # (what failed, its problems), repeated at the end of the output
    for label, publisher in publishers.items():
        problems = publisher.wait()
        for problem in problems:
            print(f"FAIL: the publisher ({label}): {problem}")
        if problems:
            verdicts.append((f"the publisher ({label})", problems))
        failed += bool(problems)
        passed += not problems
    for c in cases:
        c["relay"].close()
    with open(os.path.join(workdir, "relays.log"), "w") as log:
        log.write("\n".join(sorted(e for c in cases for e in c["relay"].events)) + "\n")
    for c in cases:
        publisher = publishers["udp" if c["udp"] else "tcp"]
        problems, story = judge(c, publisher)
        if not problems:
            passed += 1
            print(f"ok: {c['name']}: {story}")
            continue
        failed += 1
        verdicts.append((c["name"], problems))
        print(f"FAIL: {c['name']}: " + "; ".join(problems))
        print(f"  {story}\n  what the relay saw:")
        print("\n".join("    " + e for e in c["relay"].events[:60]))
        port = f":{c['relay'].port}/"
        print(f"  what the publisher ({publisher.label}) logged about it:")
        lines = [f"    {t:8.3f} {line}" for t, line in publisher.lines if port in line]
        print("\n".join(lines[:60]))
    # Once more in a few lines: the details above can run to hundreds.
    for name, problems in verdicts:
        print(f"failed: {name}: " + "; ".join(problems))
    print(f"{passed} passed, {failed} failed")
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
