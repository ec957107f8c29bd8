# shellcheck shell=bash
# Shared by run_e2e.sh and run_soak.sh (sourced): a work folder, pass and
# fail, starting the publisher, and on any failure a report of what every
# process said before the work folder goes.
#
# Every text a process writes goes to "$WORK/<name>.out", ".err" or ".log":
# those are the files the report shows.

WORK=$(mktemp -d)
PUB_PID=""       # the publisher while it runs
PUB_STOPPED=""   # set when the test itself stopped it
HELPER_PIDS=""   # other processes a case started (relays): killed on exit
FAILURES=0
QUIET=-q         # the publisher's option for no status line; "" keeps it

pass() {
  echo "ok: $*"
}

fail() {
  echo "FAIL: $*"
  FAILURES=$((FAILURES + 1))
  publisher_died
}

# When the publisher exited although nobody stopped it, says so with its
# exit code (once) and returns 0.
publisher_died() {
  [ -n "$PUB_PID" ] && [ -z "$PUB_STOPPED" ] || return 1
  kill -0 "$PUB_PID" 2>/dev/null && return 1
  local status=0
  wait "$PUB_PID" 2>/dev/null; status=$?
  if [ "$status" -gt 128 ]; then
    echo "FAIL: the publisher (pid $PUB_PID) died: exit code $status, signal $((status - 128))"
  else
    echo "FAIL: the publisher (pid $PUB_PID) died: exit code $status"
  fi
  FAILURES=$((FAILURES + 1))
  PUB_PID=""
  return 0
}

# Runs on every exit. A failed run (exit status not 0, a FAIL line, or a
# publisher that died) shows the last 200 lines of each output, labelled.
on_exit() {
  local status=$?
  publisher_died
  [ "$FAILURES" -gt 0 ] && [ "$status" -eq 0 ] && status=1
  if [ -n "$PUB_PID" ] && kill -0 "$PUB_PID" 2>/dev/null; then
    [ "$status" -ne 0 ] && echo "the publisher (pid $PUB_PID) was still running: killed"
    kill -KILL "$PUB_PID" 2>/dev/null
    wait "$PUB_PID" 2>/dev/null
  fi
  local pid
  for pid in $HELPER_PIDS; do
    if kill -0 "$pid" 2>/dev/null; then
      [ "$status" -ne 0 ] && echo "process $pid was still running: killed"
      kill -KILL "$pid" 2>/dev/null
      wait "$pid" 2>/dev/null
    fi
  done
  if [ "$status" -ne 0 ]; then
    local file
    for file in "$WORK"/*.out "$WORK"/*.err "$WORK"/*.log; do
      [ -f "$file" ] || continue
      echo "----- $(basename "$file"): last 200 lines -----"
      [ -s "$file" ] && tail -n 200 "$file" || echo "(empty)"
    done
    echo "----- end of outputs -----"
  fi
  rm -rf "$WORK"
  exit "$status"
}
trap on_exit EXIT
trap 'echo "interrupted"; exit 130' INT TERM

# Starts "$PUBLISH" with the given options on port 0 and waits for the URL
# it prints. Sets PUB_PID, RAW_URL (as printed), URL (host 127.0.0.1) and
# PUB_OUT and PUB_ERR, its output files: pub1.out, pub1.err for the first
# publisher of a run, and so on.
PUB_COUNT=0
start_publisher() {
  PUB_COUNT=$((PUB_COUNT + 1))
  PUB_OUT="$WORK/pub$PUB_COUNT.out"
  PUB_ERR="$WORK/pub$PUB_COUNT.err"
  "$PUBLISH" -p 0 $QUIET "$@" > "$PUB_OUT" 2> "$PUB_ERR" &
  PUB_PID=$!
  PUB_STOPPED=""
  RAW_URL=""
  for _ in $(seq 1 300); do
    RAW_URL=$(grep -m1 '^rtsp://' "$PUB_OUT" 2>/dev/null || true)
    [ -n "$RAW_URL" ] && break
    kill -0 "$PUB_PID" 2>/dev/null || break
    sleep 0.1
  done
  if [ -z "$RAW_URL" ]; then
    echo "the publisher did not announce a URL"
    exit 1
  fi
  URL=$(echo "$RAW_URL" | sed -E 's#^rtsp://[^/]+:([0-9]+)/#rtsp://127.0.0.1:\1/#')
  echo "serving $URL"
}

# Stops the publisher with SIGINT within $1 seconds (default 10); returns
# its exit status (124 when it had to be killed).
stop_publisher_status() {
  [ -n "$PUB_PID" ] || return 1  # gone already (publisher_died said so)
  PUB_STOPPED=1
  kill -INT "$PUB_PID" 2>/dev/null
  for _ in $(seq 1 $((${1:-10} * 10))); do
    kill -0 "$PUB_PID" 2>/dev/null || break
    sleep 0.1
  done
  local status=0
  if kill -0 "$PUB_PID" 2>/dev/null; then
    kill -KILL "$PUB_PID"
    wait "$PUB_PID" 2>/dev/null
    status=124
  else
    wait "$PUB_PID"; status=$?
  fi
  PUB_PID=""
  return "$status"
}
