#!/usr/bin/env bash
# Runs attacks of tests/security/rtsp_attacks.py against the command-line
# publisher (a small built-in stream) and fails when the server gives in to
# one. On failure, the attack's output and the publisher's are shown.
#
#   run_attacks.sh PUBLISH ATTACK[:SECONDS]...
#     (lockout overlimit pinned pauseplay udpsilence tunnel tls; by hand: pinned:70
#     shows the blocked connections closed after the 60 s session timeout)
set -uo pipefail
PUBLISH=$1
shift
# shellcheck source=../e2e/common.sh
source "$(dirname "$0")/../e2e/common.sh"

# QZ_ATTACK_PUBLISHER_ARGS adds options (by hand: e.g. "--bitrate 6000 --size 1280x720").
# The TLS port (a free one, its self-signed certificate made in the work
# folder) is for the tls attack.
start_publisher --size 320x240 --fps 25 --http-tunnel --tls-port 0 --tls-dir "$WORK/tls" \
  ${QZ_ATTACK_PUBLISHER_ARGS:-}
QZ_TLS_PORT=$(sed -n 's/^TLS port \([0-9]*\)$/\1/p' "$PUB_OUT")
export QZ_TLS_PORT
for spec in "$@"; do
  attack=${spec%%:*}  # ATTACK or ATTACK:SECONDS
  seconds=${spec#"$attack"}
  # shellcheck disable=SC2086  # no seconds: no argument
  if timeout 300 /usr/bin/python3 "$(dirname "$0")/rtsp_attacks.py" "$URL" "$attack" ${seconds#:} \
      > "$WORK/$attack.log" 2>&1; then
    pass "$(tail -n 1 "$WORK/$attack.log")"
  else
    fail "$attack: $(tail -n 1 "$WORK/$attack.log")"
  fi
  cat "$WORK/$attack.log"
done
stop_publisher_status && pass "the publisher exited cleanly after SIGINT" || fail "the publisher's exit code after SIGINT: $?"
