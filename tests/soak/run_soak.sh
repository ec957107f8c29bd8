#!/usr/bin/env bash
# Soak: serves the built-in source, plays it with one well-behaved ffmpeg
# viewer, and throws qz_rtsp_soak's clients at the same server for
# QZ_SOAK_SECONDS (default 60). Passes when ffmpeg decoded without an error,
# every soak client got the answers it should, and the publisher, stopped
# with SIGINT, reports no connection or session left and exits 0 (under
# AddressSanitizer that includes LeakSanitizer's check). A failed run shows
# what the publisher and every client said.
#   run_soak.sh PATH_TO_qz_rtsp_publish PATH_TO_qz_rtsp_soak
set -uo pipefail
PUBLISH=$1
SOAK=$2
SECONDS_TO_RUN=${QZ_SOAK_SECONDS:-60}
CLIENTS=${QZ_SOAK_CLIENTS:-200}
source "$(dirname "$0")/../e2e/common.sh"

QUIET=""  # the status lines show how the run went
start_publisher --video h264 --audio aac --size 320x240 --fps 25 --bitrate 500 \
  --max-clients $((CLIENTS + 50))
echo "$CLIENTS soak clients for ${SECONDS_TO_RUN}s"
sleep 1

ffmpeg -nostdin -v error -rtsp_transport tcp -i "$URL" -t $((SECONDS_TO_RUN + 2)) \
  -f null - > "$WORK/ffmpeg.log" 2>&1 &
FFMPEG_PID=$!
"$SOAK" --url "$URL" --clients "$CLIENTS" --seconds "$SECONDS_TO_RUN" > "$WORK/soak_clients.log" 2>&1
SOAK_STATUS=$?
tail -n 25 "$WORK/soak_clients.log"
[ "$SOAK_STATUS" -eq 0 ] || fail "soak clients: exit $SOAK_STATUS"
wait "$FFMPEG_PID"
FFMPEG_STATUS=$?
if [ "$FFMPEG_STATUS" -ne 0 ] || [ -s "$WORK/ffmpeg.log" ]; then
  fail "the well-behaved ffmpeg viewer: exit $FFMPEG_STATUS"
else
  echo "ok: ffmpeg decoded $((SECONDS_TO_RUN + 2))s without an error"
fi

sleep 2  # the server closes what the last clients left
if ! publisher_died && [ -n "$PUB_PID" ]; then
  stop_publisher_status 15
  PUB_STATUS=$?
  SUMMARY=$(grep '^servers:' "$PUB_ERR" | tail -1)
  echo "publisher: $SUMMARY"
  case "$SUMMARY" in
    "servers: 0 connections, 0 sessions,"*) echo "ok: no connection or session left" ;;
    *) fail "connections or sessions left behind" ;;
  esac
  [ "$PUB_STATUS" -eq 0 ] || fail "publisher exit $PUB_STATUS after SIGINT"
fi
[ "$FAILURES" -eq 0 ] && echo "soak passed" || echo "soak: $FAILURES failure(s)"
[ "$FAILURES" -eq 0 ]
