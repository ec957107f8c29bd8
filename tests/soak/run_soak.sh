#!/usr/bin/env bash
# Soak: serves the built-in source, plays it with one well-behaved ffmpeg
# viewer, and throws qz_rtsp_soak's clients at the same server for
# QZ_SOAK_SECONDS (default 60). Passes when ffmpeg decoded without an error,
# every soak client got the answers it should, and the publisher, stopped
# with SIGINT, reports no connection or session left and exits 0 (under
# AddressSanitizer that includes LeakSanitizer's check).
#   run_soak.sh PATH_TO_qz_rtsp_publish PATH_TO_qz_rtsp_soak
set -uo pipefail
PUBLISH=$1
SOAK=$2
SECONDS_TO_RUN=${QZ_SOAK_SECONDS:-60}
CLIENTS=${QZ_SOAK_CLIENTS:-200}
WORK=$(mktemp -d)
PUB_PID=""
cleanup() {
  [ -n "$PUB_PID" ] && kill -KILL "$PUB_PID" 2>/dev/null
  rm -rf "$WORK"
}
trap cleanup EXIT
FAILURES=0
fail() { echo "FAIL: $*"; FAILURES=$((FAILURES + 1)); }

"$PUBLISH" -p 0 --video h264 --audio aac --size 320x240 --fps 25 --bitrate 500 \
  --max-clients $((CLIENTS + 50)) > "$WORK/pub.out" 2> "$WORK/pub.err" &
PUB_PID=$!
URL=""
for _ in $(seq 1 100); do
  URL=$(grep -m1 '^rtsp://' "$WORK/pub.out" 2>/dev/null || true)
  [ -n "$URL" ] && break
  sleep 0.1
done
[ -n "$URL" ] || { echo "publisher did not start"; cat "$WORK/pub.err"; exit 1; }
URL=$(echo "$URL" | sed -E 's#^rtsp://[^/]+:([0-9]+)/#rtsp://127.0.0.1:\1/#')
echo "serving $URL; $CLIENTS soak clients for ${SECONDS_TO_RUN}s"
sleep 1

ffmpeg -nostdin -v error -rtsp_transport tcp -i "$URL" -t $((SECONDS_TO_RUN + 2)) \
  -f null - > "$WORK/ffmpeg.log" 2>&1 &
FFMPEG_PID=$!
"$SOAK" --url "$URL" --clients "$CLIENTS" --seconds "$SECONDS_TO_RUN" | tail -n 25
SOAK_STATUS=${PIPESTATUS[0]}
[ "$SOAK_STATUS" -eq 0 ] || fail "soak clients: exit $SOAK_STATUS"
wait "$FFMPEG_PID"
FFMPEG_STATUS=$?
if [ "$FFMPEG_STATUS" -ne 0 ] || [ -s "$WORK/ffmpeg.log" ]; then
  fail "the well-behaved ffmpeg viewer: exit $FFMPEG_STATUS"; head -20 "$WORK/ffmpeg.log"
else
  echo "ok: ffmpeg decoded $((SECONDS_TO_RUN + 2))s without an error"
fi

sleep 2  # the server closes what the last clients left
kill -INT "$PUB_PID"
for _ in $(seq 1 150); do kill -0 "$PUB_PID" 2>/dev/null || break; sleep 0.1; done
wait "$PUB_PID"
PUB_STATUS=$?
PUB_PID=""
SUMMARY=$(grep '^servers:' "$WORK/pub.err" | tail -1)
echo "publisher: $SUMMARY"
case "$SUMMARY" in
  "servers: 0 connections, 0 sessions,"*) echo "ok: no connection or session left" ;;
  *) fail "connections or sessions left behind" ;;
esac
if [ "$PUB_STATUS" -ne 0 ]; then
  fail "publisher exit $PUB_STATUS"; grep -iE "sanitizer|leak|error" "$WORK/pub.err" | head -20
fi
[ "$FAILURES" -eq 0 ] && echo "soak passed" || echo "soak: $FAILURES failure(s)"
[ "$FAILURES" -eq 0 ]
