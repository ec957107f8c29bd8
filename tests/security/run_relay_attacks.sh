#!/usr/bin/env bash
# Hostile relays against the publisher's push (--push): relay_attacks.py
# starts one fake relay per case on loopback and one publisher per transport
# (TCP, UDP) with --servers 0 and a --push to each of its relays, then judges
# every case. The script prints, for a failing case, what its relay saw and
# what the publisher logged about it; on any failure this runner then shows
# the publishers' logs (stamped with the time each line came), their status
# lines and summaries, and every relay's events.
#
#   run_relay_attacks.sh PUBLISH [SECONDS] [CASE...]
#     (default: every case for 45 s. A failure of the publisher as a whole,
#     a held-up encoder or a crash, is pinned on one relay by running fewer
#     cases: e.g. run_relay_attacks.sh PUBLISH 45 never_reads chatty)
set -uo pipefail
PUBLISH=$1
shift
# shellcheck source=../e2e/common.sh
source "$(dirname "$0")/../e2e/common.sh"

# Ahead of other processes where the test may (root): it times the back-off
# to a fraction of a second on both sides, and frames the source drops
# because a build beside it had the CPU would pass for an encoder held up
# by the push.
NICE=()
[ "$(id -u)" -eq 0 ] && NICE=(nice -n -10)
if timeout 300 "${NICE[@]}" /usr/bin/python3 -B "$(dirname "$0")/relay_attacks.py" "$PUBLISH" \
    "$WORK" "$@"; then
  pass "every hostile relay was logged, retried with back-off, and left the publisher unharmed"
else
  fail "relay_attacks.py (above)"
fi
