# shellcheck shell=bash
# The multicast end-to-end case, sourced by run_e2e.sh (which has pass,
# fail, start_publisher, stop_publisher and play_with_gstreamer): it never
# sends multicast onto a real network, only within a network namespace of
# its own.

# The multicast case runs in a network namespace of its own, so that its
# groups never reach a real network: this runs the case again inside a new
# one (unshare --net, which needs root, as CI has) and exits with its
# status. Not root, or no unshare: a failure that says why. A system that
# refuses network namespaces even to root (some containers): SKIP, with the
# reason, and CTest's skip code.
run_in_network_namespace() {
  local why=""
  if ! command -v unshare > /dev/null || ! command -v ip > /dev/null; then
    why="unshare (util-linux) and ip (iproute2) are needed: scripts/install_deps.sh installs them"
  elif [ "$(id -u)" -ne 0 ]; then
    why="unshare --net needs root (CI runs as root); run this case as root"
  fi
  if [ -n "$why" ]; then
    fail "$why"
    exit 1
  fi
  local refused
  if ! refused=$(unshare --net true 2>&1); then
    echo "SKIP: this system refuses network namespaces even to root: $refused"
    trap - EXIT
    rm -rf "$WORK"
    exit 77
  fi
  local status=0
  unshare --net -- env QZ_E2E_NETNS=1 bash "$0" "$CASE" "$PUBLISH" || status=$?
  trap - EXIT
  rm -rf "$WORK"
  exit "$status"
}

# Inside the namespace: its loopback interface, the only one there, up and
# carrying multicast, with the groups routed to it.
prepare_network_namespace() {
  local links
  links=$(ip -o link show | wc -l)
  if [ "$links" -ne 1 ]; then
    fail "not alone in a network namespace ($links interfaces): no multicast sent"
    exit 1
  fi
  if ! { ip link set lo up && ip link set lo multicast on && ip route add 239.0.0.0/8 dev lo; }; then
    fail "cannot route multicast to the namespace's loopback"
    exit 1
  fi
}

# FFmpeg over udp_multicast for $2 seconds into a frame checksum list, as
# viewer $1 (its files: ffmpeg_mc_$1.log, .crc, .status); in the
# background with $3 = bg, its process id added to VIEWERS.
ffmpeg_multicast() {
  local name=$1 seconds=$2
  local run="timeout $((seconds + 20)) ffmpeg -nostdin -v error -rtsp_transport udp_multicast \
    -i $URL -t $seconds -f framecrc $WORK/ffmpeg_mc_$name.crc"
  if [ "${3:-}" = bg ]; then
    (eval "$run" > "$WORK/ffmpeg_mc_$name.log" 2>&1; echo $? > "$WORK/ffmpeg_mc_$name.status") &
    VIEWERS+=($!)
  else
    eval "$run" > "$WORK/ffmpeg_mc_$name.log" 2>&1
    echo $? > "$WORK/ffmpeg_mc_$name.status"
  fi
}

# Viewer $1 exited 0 without an error line, having decoded $2 seconds of
# AAC audio (46.9 frames a second) and of 25 fps video, at least 85 % and
# 90 % of them, less the $3 seconds its first picture may wait for a key
# frame: a viewer that joins a group already sending starts at the next
# one, which it asks for (within a second of another request, when that
# second ends).
#
# Such a joiner ($3 > 0) also receives the group's packets from the moment
# it joins, mid-picture and mid-GOP: whether FFmpeg's H.264 decoder then
# logs the P pictures it cannot decode ("Missing reference picture",
# "decode_slice_header error", "error while decoding MB") depends on where
# in the GOP the join lands (1 run in 5 on a loaded machine, none in 20 on
# a quiet one). Those lines are the group's nature, not a fault, and are
# let through for joiners only, counted; any other line fails.
expect_multicast_viewer() {
  local name=$1 seconds=$2 wait=$3 status video audio log other joined=0
  status=$(cat "$WORK/ffmpeg_mc_$name.status" 2>/dev/null || echo none)
  video=$(grep -c '^0,' "$WORK/ffmpeg_mc_$name.crc" 2>/dev/null)
  audio=$(grep -c '^1,' "$WORK/ffmpeg_mc_$name.crc" 2>/dev/null)
  log="$WORK/ffmpeg_mc_$name.log"
  other=$(grep -c . "$log" 2>/dev/null)
  if [ "$wait" -gt 0 ]; then
    joined=$(grep -cE '^\[h264 @ 0x[0-9a-f]+\] ' "$log" 2>/dev/null)
    other=$((other - joined))
  fi
  if [ "$status" = 0 ] && [ "${other:-0}" -eq 0 ] &&
    [ "${video:-0}" -ge $(((seconds - wait) * 25 * 9 / 10)) ] &&
    [ "${audio:-0}" -ge $((seconds * 40)) ]; then
    pass "ffmpeg $name decoded ${seconds}s over udp_multicast: $video video and $audio audio frames ($joined decoder lines from joining mid-GOP)"
  else
    fail "ffmpeg $name over udp_multicast: exit $status, $video video and $audio audio frames, ${other:-0} unexpected log lines"
    head -5 "$log"
  fi
}

# The case: multicast, only ever inside a network namespace it makes (see
# run_in_network_namespace). FFmpeg (-rtsp_transport udp_multicast) decodes
# 10 s of audio and video, GStreamer (rtspsrc protocols=udp-mcast) 300
# video buffers and 300 of audio, then three FFmpeg viewers play at once,
# joining a second apart, one group for them all (each after the first
# starts at the group's next key frame).
run_multicast_case() {
  [ -n "${QZ_E2E_NETNS:-}" ] || run_in_network_namespace
  prepare_network_namespace
  start_publisher --size 320x240 --multicast
  sleep 1
  ffmpeg_multicast single 10
  expect_multicast_viewer single 10 0
  play_with_gstreamer udp-mcast 300 audio
  VIEWERS=()
  for viewer in a b c; do
    ffmpeg_multicast "$viewer" 6 bg
    sleep 1
  done
  wait "${VIEWERS[@]}"
  expect_multicast_viewer a 6 0  # starts the group: at the cached key frame
  # Key frames come at once when asked for, else every 2 s: room for the
  # latter on a loaded machine.
  expect_multicast_viewer b 6 2
  expect_multicast_viewer c 6 2
  stop_publisher
}
