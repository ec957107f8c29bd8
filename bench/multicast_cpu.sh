#!/usr/bin/env bash
# What viewers cost the publisher, multicast against unicast UDP: the
# publisher's CPU time (utime + stime from /proc/PID/stat) over a window
# while N FFmpeg viewers play, each a real RTSP client that copies the
# packets without decoding them (-c copy -f null).
#
# Multicast never leaves this machine: everything runs in a network
# namespace made for it (unshare --net, as root), whose loopback interface
# carries the groups. Over loopback the kernel delivers each datagram to the
# viewers' sockets partly within the sender's system call, so a viewer on
# this machine costs the sender a little even with multicast (across a real
# network it would not): points "mc:1+N" add N members that play but join
# no group (bench/rtsp_multicast_members.py) to one FFmpeg viewer, for the
# server's own cost of a member.
#
#   bench/multicast_cpu.sh BUILD_DIR [ROUNDS]
# Env: QZ_MC_POINTS (default "0 mc:1 mc:10 mc:1+9 mc:30 mc:1+29 udp:1
# udp:10 udp:30"), QZ_MC_WINDOW_S (20), QZ_MC_WARMUP_S (5), QZ_MC_INPUT (a
# file to serve instead of the one made here).
set -uo pipefail

BUILD=${1:?usage: bench/multicast_cpu.sh BUILD_DIR [ROUNDS]}
ROUNDS=${2:-3}
PUBLISH=$(realpath "$BUILD/tools/qz_rtsp_publish")
POINTS=${QZ_MC_POINTS:-"0 mc:1 mc:10 mc:1+9 mc:30 mc:1+29 udp:1 udp:10 udp:30"}
WINDOW=${QZ_MC_WINDOW_S:-20}
WARMUP=${QZ_MC_WARMUP_S:-5}

if [ -z "${QZ_MC_NETNS:-}" ]; then
  [ "$(id -u)" -eq 0 ] || { echo "needs root (unshare --net)"; exit 2; }
  exec unshare --net -- env QZ_MC_NETNS=1 bash "$0" "$@"
fi
ip link set lo up && ip link set lo multicast on && ip route add 239.0.0.0/8 dev lo || exit 1

WORK=$(mktemp -d)
trap 'kill $(jobs -p) 2> /dev/null; rm -rf "$WORK"' EXIT
# 40 s of 1920x1080 at 25 fps, 6 Mbit/s H.264 (key frame every 2 s, no
# B-frames) and AAC: the file source only demuxes it, so the publisher's CPU
# is mostly the server's.
INPUT=${QZ_MC_INPUT:-$WORK/in.mp4}
[ -f "$INPUT" ] || ffmpeg -nostdin -v error -f lavfi -i testsrc2=size=1920x1080:rate=25 -f lavfi \
  -i sine=frequency=440:sample_rate=48000 -t 40 -c:v libx264 -preset veryfast -b:v 6M \
  -g 50 -bf 0 -pix_fmt yuv420p -c:a aac -ac 1 "$INPUT" || exit 1

# Every viewer comes from 127.0.0.1: no cap on connections per address.
"$PUBLISH" -p 8554 -q --multicast --max-per-address 0 --input "$INPUT" > "$WORK/pub.out" 2> "$WORK/pub.err" &
PUB=$!
sleep 2
URL=rtsp://127.0.0.1:8554/live
TICKS=$(getconf CLK_TCK)
cpu_ticks() { awk '{ print $14 + $15 }' "/proc/$PUB/stat"; }

printf "%-8s" "point"
for r in $(seq 1 "$ROUNDS"); do printf " %8s" "round $r"; done
echo "   (publisher CPU, % of one core, over ${WINDOW} s)"
declare -A RESULT
for r in $(seq 1 "$ROUNDS"); do
  for point in $POINTS; do
    mode=${point%%:*} n=${point#*:} idle=0
    [ "$point" = 0 ] && n=0
    if [ "$n" != "${n#*+}" ]; then
      idle=${n#*+} n=${n%+*}
    fi
    viewers=()
    if [ "$idle" -gt 0 ]; then
      python3 "$(dirname "$0")/rtsp_multicast_members.py" "$URL" "$idle" > "$WORK/members.log" 2>&1 &
      viewers+=($!)
    fi
    for i in $(seq 1 "$n"); do
      transport=$([ "$mode" = mc ] && echo udp_multicast || echo udp)
      ffmpeg -nostdin -v error -rtsp_transport "$transport" -i "$URL" -c copy \
        -t $((WARMUP + WINDOW + 10)) -f null - > "$WORK/viewer_$i.log" 2>&1 &
      viewers+=($!)
      sleep 0.2
    done
    sleep "$WARMUP"
    before=$(cpu_ticks)
    sleep "$WINDOW"
    after=$(cpu_ticks)
    RESULT[$point,$r]=$(awk -v t=$((after - before)) -v hz="$TICKS" -v w="$WINDOW" \
      'BEGIN { printf "%.1f", t / hz / w * 100 }')
    [ "${#viewers[@]}" -gt 0 ] && kill "${viewers[@]}" 2> /dev/null && wait "${viewers[@]}" 2> /dev/null
    sleep 3
  done
done
for point in $POINTS; do
  printf "%-8s" "$point"
  for r in $(seq 1 "$ROUNDS"); do printf " %8s" "${RESULT[$point,$r]}"; done
  echo
done
kill -INT "$PUB"
wait "$PUB"
grep -E '^(servers|stream)' "$WORK/pub.err"
