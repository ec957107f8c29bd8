#!/usr/bin/env bash
# By hand, with an AddressSanitizer build: the publisher pushes to FFmpeg in
# listen mode as the relay, which is killed (SIGKILL) every 5 s and started
# again after 0 to 2 s, CYCLES times; a second push names a port where no
# relay ever listens. Each relay must decode more than 50 video frames, and
# the publisher must exit 0 at the end, LeakSanitizer finding nothing.
#
#   tests/soak/push_restarts.sh build-asan/tools/qz_rtsp_publish [CYCLES]
set -u
PUB=$(realpath "${1:?usage: tests/soak/push_restarts.sh PATH_TO_qz_rtsp_publish [CYCLES]}")
CYCLES=${2:-20}
WORK=$(mktemp -d)
trap 'kill $(jobs -p) 2> /dev/null; rm -rf "$WORK"' EXIT
cd "$WORK" || exit 1
PORT=$(python3 -c 'import socket; s = socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])')
export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=1}
"$PUB" -p 0 -q --size 320x240 --push "rtsp://127.0.0.1:$PORT/phone" \
  --push "rtsp://127.0.0.1:$((PORT + 1))/never" > pub.out 2> pub.err &
PID=$!
good=0
for i in $(seq 1 "$CYCLES"); do
  # -flush_packets: the frame list is on disk when the relay is killed.
  ffmpeg -nostdin -v error -rtsp_flags listen -i "rtsp://127.0.0.1:$PORT/phone" \
    -flush_packets 1 -f framecrc "relay_$i.crc" > "relay_$i.log" 2>&1 &
  relay=$!
  sleep 5
  kill -KILL "$relay"; wait "$relay" 2> /dev/null
  video=$(grep -c '^0,' "relay_$i.crc")
  if [ "$video" -gt 50 ]; then good=$((good + 1)); else echo "cycle $i: $video video frames"; cat "relay_$i.log"; fi
  sleep $((i % 3))
done
kill -INT "$PID"; wait "$PID"; status=$?
grep '^push ' pub.err
echo "relays that decoded: $good of $CYCLES; publisher exit $status"
if [ "$status" -ne 0 ] || [ "$good" -ne "$CYCLES" ]; then
  tail -50 pub.err; grep -v '^VartoLogIOS \[I\] RtspSinker' pub.out | tail -30
  exit 1
fi
