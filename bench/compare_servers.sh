#!/usr/bin/env bash
# Runs our server (qz_rtsp_publish serving a file) and GStreamer's
# (qz_gst_rtsp_peer) in turn on the same input, 1080p30 H.264 4 Mbit/s with a
# 2 s key-frame interval and no B-frames plus AAC 128 kbit/s, the server
# pinned to core 0 and qz_rtsp_load to core 1, for each reader count. Per
# point: server CPU (% of a core, over a 10 s window after 5 s of warm-up),
# resident memory, loss and delay over the best frame. Each point runs
# QZ_BENCH_REPEAT times (default 3) per server and the run with the median
# CPU is reported. Prints a Markdown table with the ratios ours/peer.
#   bench/compare_servers.sh [BUILD_DIR]      (default build; run by hand)
set -uo pipefail
BUILD=${1:-build}
ROOT=$(cd "$(dirname "$0")/.." && pwd)
INPUT=${QZ_BENCH_INPUT:-$ROOT/$BUILD/bench_input_1080p30.mp4}
POINTS=${QZ_BENCH_POINTS:-"tcp:1 tcp:10 tcp:50 tcp:100 tcp:200 tcp:500 udp:10 udp:50 udp:100"}
PORT=18554
REPEAT=${QZ_BENCH_REPEAT:-3}
TICKS=$(getconf CLK_TCK)

if [ ! -s "$INPUT" ]; then
  echo "making $INPUT" >&2
  ffmpeg -nostdin -v error -y -f lavfi -i testsrc2=size=1920x1080:rate=30 \
    -f lavfi -i sine=frequency=440:sample_rate=48000 -t 150 \
    -c:v libx264 -preset veryfast -b:v 4M -maxrate 4M -bufsize 4M -g 60 -keyint_min 60 \
    -sc_threshold 0 -bf 0 -pix_fmt yuv420p -c:a aac -b:a 128k -ac 2 "$INPUT" || exit 1
fi

cpu_ticks() { awk '{print $14 + $15}' "/proc/$1/stat"; }
rss_kb() { awk '/VmRSS/ {print $2}' "/proc/$1/status"; }

# measure SERVER_KIND TRANSPORT READERS -> "cpu% rss_MB loss p50 p99 alive"
measure() {
  local kind=$1 transport=$2 readers=$3 pid
  if [ "$kind" = ours ]; then
    taskset -c 0 "$ROOT/$BUILD/tools/qz_rtsp_publish" -q -p $PORT --input "$INPUT" \
      --max-clients 1000 > /dev/null 2>&1 &
  else
    taskset -c 0 "$ROOT/$BUILD/bench/qz_gst_rtsp_peer" "$INPUT" $PORT > /dev/null 2>&1 &
  fi
  pid=$!
  sleep 2
  local flag=""
  [ "$transport" = udp ] && flag="--udp"
  taskset -c 1 "$ROOT/$BUILD/bench/qz_rtsp_load" "rtsp://127.0.0.1:$PORT/live" \
    --sessions "$readers" --seconds 17 $flag > /tmp/qz_load.$$ 2>&1 &
  local load=$!
  sleep 5
  local t0 c0 t1 c1 rss
  t0=$(date +%s.%N); c0=$(cpu_ticks $pid)
  sleep 10
  t1=$(date +%s.%N); c1=$(cpu_ticks $pid); rss=$(rss_kb $pid)
  wait $load
  kill -INT $pid; sleep 1; kill -KILL $pid 2>/dev/null; wait $pid 2>/dev/null
  local summary
  summary=$(grep '^summary' /tmp/qz_load.$$)
  rm -f /tmp/qz_load.$$
  local cpu
  cpu=$(echo "($c1 - $c0) * 100 / $TICKS / ($t1 - $t0)" | bc -l)
  local alive loss p50 p99
  alive=$(echo "$summary" | sed -E 's/.*sessions ([0-9]+)\/.*/\1/')
  loss=$(echo "$summary" | sed -E 's/.*loss ([0-9.]+) %.*/\1/')
  p50=$(echo "$summary" | sed -E 's/.*p50 ([0-9.]+) ms.*/\1/')
  p99=$(echo "$summary" | sed -E 's/.*p99 ([0-9.]+) ms.*/\1/')
  printf "%.1f %.1f %s %s %s %s" "$cpu" "$(echo "$rss / 1024" | bc -l)" "${loss:-?}" \
    "${p50:-?}" "${p99:-?}" "${alive:-0}"
}

# The run with the median CPU of REPEAT runs of one point.
median_of() {
  local runs=() i
  for i in $(seq 1 "$REPEAT"); do
    runs+=("$(measure "$@")")
  done
  printf "%s\n" "${runs[@]}" | sort -n -k1,1 | sed -n "$(((REPEAT + 1) / 2))p"
}

echo "| readers | ours CPU % | peer CPU % | ours/peer CPU | ours RSS MB | peer RSS MB | ours loss % | peer loss % | ours delay p50/p99 ms | peer delay p50/p99 ms | alive ours/peer |"
echo "| --- | --- | --- | --- | --- | --- | --- | --- | --- | --- | --- |"
for point in $POINTS; do
  transport=${point%%:*}
  readers=${point##*:}
  read -r oc om ol o50 o99 oa <<< "$(median_of ours "$transport" "$readers")"
  read -r gc gm gl g50 g99 ga <<< "$(median_of peer "$transport" "$readers")"
  ratio=$(echo "if ($gc > 0) $oc / $gc else 0" | bc -l)
  printf "| %s %s | %s | %s | %.2f | %s | %s | %s | %s | %s/%s | %s/%s | %s/%s |\n" \
    "$readers" "$transport" "$oc" "$gc" "$ratio" "$om" "$gm" "$ol" "$gl" "$o50" "$o99" \
    "$g50" "$g99" "$oa" "$ga"
done
