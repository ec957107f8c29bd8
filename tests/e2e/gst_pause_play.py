"""A GStreamer viewer that pauses: rtspsrc (TCP, credentials in its user-id
and user-pw properties) plays a URL for PLAY_S seconds, the pipeline goes to
PAUSED (rtspsrc sends PAUSE) for PAUSE_S seconds, back to PLAYING (PLAY),
and so on for ROUNDS plays. It fails on any error or warning on the bus or
a play that brings no decoded video.

Usage: gst_pause_play.py URL USER PASSWORD ROUNDS PLAY_S PAUSE_S
"""
import sys
import time

import gi

gi.require_version("Gst", "1.0")
from gi.repository import Gst  # noqa: E402


def main():
    url, user, password = sys.argv[1:4]
    rounds, play_s, pause_s = int(sys.argv[4]), float(sys.argv[5]), float(sys.argv[6])
    Gst.init(None)
    # The sink does not wait for a picture in PAUSED: a paused RTSP stream
    # sends none.
    pipeline = Gst.parse_launch(
        "rtspsrc name=src protocols=tcp latency=100 ! application/x-rtp,media=video ! decodebin"
        " ! fakesink name=sink sync=false async=false")
    src = pipeline.get_by_name("src")
    src.set_property("location", url)
    src.set_property("user-id", user)
    src.set_property("user-pw", password)
    # Video only: an audio pad left unlinked would stop the TCP stream with
    # "not-linked" whenever rtspsrc offers it before the video pad.
    src.connect("select-stream",
                lambda _src, _num, caps: caps.get_structure(0).get_string("media") == "video")
    pictures = [0]

    def count(_pad, _info):
        pictures[0] += 1
        return Gst.PadProbeReturn.OK

    pipeline.get_by_name("sink").get_static_pad("sink").add_probe(Gst.PadProbeType.BUFFER, count)
    bus = pipeline.get_bus()
    problems = []

    def run(state, seconds):
        if pipeline.set_state(state) == Gst.StateChangeReturn.FAILURE:
            problems.append("cannot go to %s" % state.value_nick)
        end = time.monotonic() + seconds
        while time.monotonic() < end:
            message = bus.timed_pop_filtered(
                100 * Gst.MSECOND,
                Gst.MessageType.ERROR | Gst.MessageType.WARNING | Gst.MessageType.EOS)
            if message is None:
                continue
            if message.type == Gst.MessageType.EOS:
                problems.append("end of stream")
            else:
                error, debug = (message.parse_error() if message.type == Gst.MessageType.ERROR
                                else message.parse_warning())
                problems.append("%s: %s (%s)" % (message.type.first_value_nick, error.message, debug))

    for round_ in range(rounds):
        before = pictures[0]
        run(Gst.State.PLAYING, play_s)
        print("round %d: %d pictures" % (round_ + 1, pictures[0] - before))
        if pictures[0] == before:
            problems.append("no picture in round %d" % (round_ + 1))
        if round_ + 1 < rounds:
            run(Gst.State.PAUSED, pause_s)
    pipeline.set_state(Gst.State.NULL)
    for problem in problems:
        print(problem, file=sys.stderr)
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main())
