#!/usr/bin/env bash
# What a push to a relay costs the publisher next to a local viewer: the
# publisher's CPU time (utime + stime from /proc/PID/stat) over a window,
# and the delay from a record posted into the pipe (and from its frame
# pushed into the sinker) to its last packet handed to the kernel, from the
# publisher's exit summary. Points: "idle" (nobody reads), "view:tcp" and
# "view:udp" (one FFmpeg viewer of the local server), "push:tcp" and
# "push:udp" (one push to FFmpeg in listen mode as the relay). Viewer and
# relay copy the packets without decoding (-c copy -f null). The file
# source only demuxes: the publisher's CPU is mostly the server's or the
# pusher's. All on loopback.
#
#   bench/push_cost.sh BUILD_DIR [ROUNDS]
# Env: QZ_PUSH_POINTS (default "idle view:tcp push:tcp view:udp push:udp"),
# QZ_PUSH_WINDOW_S (20), QZ_PUSH_WARMUP_S (5), QZ_PUSH_INPUT (a file to
# serve instead of the one made here).
set -uo pipefail

BUILD=${1:?usage: bench/push_cost.sh BUILD_DIR [ROUNDS]}
ROUNDS=${2:-3}
PUBLISH=$(realpath "$BUILD/tools/qz_rtsp_publish")
POINTS=${QZ_PUSH_POINTS:-"idle view:tcp push:tcp view:udp push:udp"}
WINDOW=${QZ_PUSH_WINDOW_S:-20}
WARMUP=${QZ_PUSH_WARMUP_S:-5}
WORK=$(mktemp -d)
trap 'kill $(jobs -p) 2> /dev/null; rm -rf "$WORK"' EXIT
INPUT=${QZ_PUSH_INPUT:-$WORK/in.mp4}
[ -f "$INPUT" ] || ffmpeg -nostdin -v error -f lavfi -i testsrc2=size=1920x1080:rate=25 -f lavfi \
  -i sine=frequency=440:sample_rate=48000 -t 40 -c:v libx264 -preset veryfast -b:v 6M \
  -g 50 -bf 0 -pix_fmt yuv420p -c:a aac -ac 1 "$INPUT" || exit 1
TICKS=$(getconf CLK_TCK)
free_port() {
  python3 -c 'import socket; s = socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])'
}

printf "%-9s" "point"
for r in $(seq 1 "$ROUNDS"); do printf " %8s" "round $r"; done
echo "   (publisher CPU, % of one core, over ${WINDOW} s; delays of the last round, ms)"
for point in $POINTS; do
  mode=${point%%:*} transport=${point#*:}
  printf "%-9s" "$point"
  delays=""
  for r in $(seq 1 "$ROUNDS"); do
    args=(-p 0 -q --max-per-address 0 --input "$INPUT" -t $((WARMUP + WINDOW + 2)))
    relay=""
    if [ "$mode" = push ]; then
      port=$(free_port)
      ffmpeg -nostdin -v error -rtsp_flags listen -min_port 30000 -i "rtsp://127.0.0.1:$port/phone" \
        -c copy -f null - > "$WORK/relay.log" 2>&1 &
      relay=$!
      for _ in $(seq 1 50); do ss -Hltn "sport = :$port" | grep -q . && break; sleep 0.1; done
      args+=(--push "rtsp://127.0.0.1:$port/phone" --push-transport "$transport")
    fi
    "$PUBLISH" "${args[@]}" > "$WORK/pub.out" 2> "$WORK/pub.err" &
    pub=$!
    url=""
    for _ in $(seq 1 100); do
      url=$(grep -m1 '^rtsp://' "$WORK/pub.out" | sed -E 's#^rtsp://[^/]+:#rtsp://127.0.0.1:#')
      [ -n "$url" ] && break
      sleep 0.1
    done
    viewer=""
    if [ "$mode" = view ]; then
      ffmpeg -nostdin -v error -rtsp_transport "$transport" -i "$url" -c copy -f null - \
        > "$WORK/viewer.log" 2>&1 &
      viewer=$!
    fi
    sleep "$WARMUP"
    before=$(awk '{ print $14 + $15 }' "/proc/$pub/stat")
    sleep "$WINDOW"
    after=$(awk '{ print $14 + $15 }' "/proc/$pub/stat")
    awk -v t=$((after - before)) -v hz="$TICKS" -v w="$WINDOW" 'BEGIN { printf " %8.2f", 100 * t / hz / w }'
    wait "$pub"
    [ -n "$viewer" ] && kill "$viewer" 2> /dev/null
    [ -n "$relay" ] && { kill "$relay" 2> /dev/null; wait "$relay" 2> /dev/null; }
    if [ "$mode" = push ]; then
      delays=$(grep -m1 '^push ' "$WORK/pub.err" |
        sed -nE 's/.*posted-to-written delay p50 ([0-9.]+) ms, p99 ([0-9.]+) ms.*pushed-to-written p50 ([0-9.]+) ms, p99 ([0-9.]+) ms.*/posted->written p50 \1 p99 \2, pushed->written p50 \3 p99 \4/p')
      drops=$(grep -m1 '^push ' "$WORK/pub.err" | sed -nE 's/.* ([0-9]+) dropped,.*/\1/p')
      delays="$delays, $drops packets dropped"
    elif [ "$mode" = view ]; then
      delays=$(grep -m1 '^stream ' "$WORK/pub.err" |
        sed -nE 's/.*posted-to-written delay p50 ([0-9.]+) ms, p99 ([0-9.]+) ms.*pushed-to-written p50 ([0-9.]+) ms, p99 ([0-9.]+) ms.*/posted->written p50 \1 p99 \2, pushed->written p50 \3 p99 \4/p')
    fi
  done
  echo "   $delays"
done
