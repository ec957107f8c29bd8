#!/usr/bin/env bash
# One reader stopped (SIGSTOP) for 5 s while 10 others play: prints the 10
# readers' loss and delay with and without the stopped one, the server's
# largest resident memory, and what became of the stopped reader.
#   bench/slow_reader.sh [BUILD_DIR]      (run by hand; uses the input of
#                                          compare_servers.sh)
set -uo pipefail
BUILD=${1:-build}
ROOT=$(cd "$(dirname "$0")/.." && pwd)
INPUT=${QZ_BENCH_INPUT:-$ROOT/$BUILD/bench_input_1080p30.mp4}
PORT=18564
URL="rtsp://127.0.0.1:$PORT/live"
[ -s "$INPUT" ] || { echo "run bench/compare_servers.sh first (it makes $INPUT)"; exit 1; }

run() {  # $1: with_stopped (0/1)
  taskset -c 0 "$ROOT/$BUILD/tools/qz_rtsp_publish" -p $PORT --input "$INPUT" --max-per-address 0 \
    > /dev/null 2> /tmp/qz_slow_pub.$$ &
  local pub=$! max_rss=0 rss
  sleep 2
  taskset -c 1 "$ROOT/$BUILD/bench/qz_rtsp_load" "$URL" --sessions 10 --seconds 20 \
    > /tmp/qz_slow_load.$$ &
  local load=$!
  local viewer=""
  if [ "$1" = 1 ]; then
    ffmpeg -nostdin -v error -rtsp_transport tcp -i "$URL" -f null - > /tmp/qz_slow_ff.$$ 2>&1 &
    viewer=$!
  fi
  for t in $(seq 1 20); do
    [ -n "$viewer" ] && [ "$t" = 4 ] && kill -STOP "$viewer"
    [ -n "$viewer" ] && [ "$t" = 9 ] && kill -CONT "$viewer"
    rss=$(awk '/VmRSS/ {print $2}' "/proc/$pub/status")
    [ "$rss" -gt "$max_rss" ] && max_rss=$rss
    sleep 1
  done
  wait $load
  local viewer_state="none"
  if [ -n "$viewer" ]; then
    if kill -0 "$viewer" 2>/dev/null; then viewer_state="still playing"; else viewer_state="gone"; fi
    kill "$viewer" 2>/dev/null
  fi
  kill -INT $pub; wait $pub 2>/dev/null
  echo "$(grep '^summary' /tmp/qz_slow_load.$$); server max RSS $((max_rss / 1024)) MB; stopped reader: $viewer_state"
  grep '^servers:' /tmp/qz_slow_pub.$$
  rm -f /tmp/qz_slow_*.$$
}
echo "without a stopped reader:"; run 0
echo "with one reader stopped for 5 s:"; run 1
