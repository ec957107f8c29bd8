#!/usr/bin/env bash
# End-to-end tests: start qz_rtsp_publish as a user would (a real process on
# a free port) and pull from it with ffprobe, ffmpeg (UDP and TCP) and
# GStreamer, and push to a relay. Usage: run_e2e.sh CASE PATH_TO_qz_rtsp_publish
set -uo pipefail

CASE=$1
PUBLISH=$2
source "$(dirname "$0")/common.sh"
source "$(dirname "$0")/multicast.sh"
source "$(dirname "$0")/push_relay.sh"

# Stops the publisher with SIGINT: it must exit 0 and print its summary
# (-q hides only the status line), and FFmpeg's informational messages
# (encoder statistics, queues left unflushed) stay out of its output.
stop_publisher() {
  { publisher_died || [ -z "$PUB_PID" ]; } && return  # gone; that was reported
  local status=0
  stop_publisher_status; status=$?
  [ "$status" -eq 0 ] && pass "exit code 0 after SIGINT" || fail "exit code $status after SIGINT"
  local chatter
  chatter=$(grep -E '^\[[a-z0-9_]+ @ 0x|^x26[45] \[' "$PUB_ERR" | head -3)
  if grep -q '^servers: ' "$PUB_ERR" && [ -z "$chatter" ]; then
    pass "exit summary printed, no FFmpeg chatter"
  else
    fail "exit summary missing or FFmpeg chatter: $chatter"
  fi
}

# No line of the publisher's log matches $1 ($2 names what it would mean);
# run it once the publisher stopped, when its log is complete.
expect_no_log_lines() {
  local count
  count=$(grep -c -E "$1" "$PUB_OUT")
  [ "$count" -eq 0 ] && pass "no $2" || fail "$count lines of $2: $(grep -m1 -E "$1" "$PUB_OUT")"
}

# The sinker's first video must be a key frame; the encoder codes one as
# soon as the stream is announced, so no frame of the first GOP is dropped.
expect_whole_first_gop() {
  expect_no_log_lines 'is_first_video_=true' "first-GOP drops"
}

# ffprobe the streams; $1: expected compact lines, one per stream.
expect_streams() {
  local got
  got=$(timeout 20 ffprobe -v error -rtsp_transport tcp \
    -show_entries stream=codec_name,width,height,sample_rate,channels -of compact=nk=0 "$URL" \
    2> "$WORK/ffprobe_streams.log" | sed 's/^stream|//' | sort)
  local want
  want=$(echo -e "$1" | sort)
  [ "$got" = "$want" ] && pass "ffprobe streams: $(echo $got)" || fail "ffprobe streams: got [$got] want [$want]"
}

# Decodes $2 seconds over transport $1 with ffmpeg; any error line fails.
decode_with_ffmpeg() {
  local transport=$1 seconds=$2
  timeout $((seconds + 20)) ffmpeg -nostdin -v error -rtsp_transport "$transport" -i "$URL" \
    -t "$seconds" -f null - > "$WORK/ffmpeg_$transport.log" 2>&1
  local status=$?
  if [ "$status" -eq 0 ] && [ ! -s "$WORK/ffmpeg_$transport.log" ]; then
    pass "ffmpeg decoded ${seconds}s over $transport without error"
  else
    fail "ffmpeg over $transport: exit $status"; head -20 "$WORK/ffmpeg_$transport.log"
  fi
}

# Plays with GStreamer's rtspsrc until $2 video buffers were decoded; a
# failure shows GStreamer's errors and warnings (its whole log is in the
# report the run prints when it fails). One error after the end of stream is
# rtspsrc's own: stopping, it sends PAUSE while flushing its connection and
# now and then reports "Could not send message. (Received end-of-file)"
# from the PAUSE (with its debug log: within microseconds of sending, and
# the TEARDOWN that follows on the same connection gets its 200). Any other
# error, or this one before the end of stream, fails. An rtsps:// URL is
# played without checking the server's certificate (a self-signed one).
play_with_gstreamer() {
  local protocol=$1 buffers=$2 audio_branch="" tls=""
  if [ "${3:-}" = "audio" ]; then
    audio_branch="s. ! queue ! application/x-rtp,media=audio ! decodebin ! audioconvert ! identity eos-after=$buffers ! fakesink"
  fi
  case "$URL" in rtsps*) tls="tls-validation-flags=0" ;; esac
  local status=0 log="$WORK/gst_$protocol.log"
  # shellcheck disable=SC2086  # no TLS: no argument
  timeout 40 gst-launch-1.0 -e rtspsrc location="$URL" protocols="$protocol" $tls name=s \
    s. ! queue ! "application/x-rtp,media=video" ! decodebin ! videoconvert \
    ! identity eos-after="$buffers" ! fakesink \
    $audio_branch > "$log" 2>&1
  status=$?
  # Errors: the first line of every "ERROR:" block but the PAUSE's above.
  local errors
  errors=$(awk '
    function flush() {
      if (in_block && !(block_eos && block ~ /gst_rtspsrc_(try_send|pause)/ &&
                        block ~ /Received end-of-file/)) print first
      in_block = 0
    }
    /EOS received/ { eos = 1 }
    /^ERROR:/ { flush(); in_block = 1; block_eos = eos; first = $0; block = $0; next }
    in_block && /^(Additional debug info:|\.\.\/|Could not)/ { block = block " " $0; next }
    { flush() }
    END { flush() }' "$log")
  # gst-launch exits 1 for any error it saw, the PAUSE's included.
  if [ "$status" -le 1 ] && grep -q "EOS received" "$log" && [ -z "$errors" ]; then
    pass "GStreamer decoded $buffers buffers over $protocol"
  else
    fail "GStreamer over $protocol: exit $status; $errors"
    grep -E -A 2 "ERROR|WARN" "$log" | head -12
  fi
}

# The user-data SEI reaches the decoder as frame side data.
expect_user_data() {
  local count
  count=$(timeout 20 ffprobe -v error -rtsp_transport tcp -read_intervals %+4 -select_streams v \
    -show_frames -show_entries side_data=side_data_type -of compact "$URL" 2> "$WORK/ffprobe_sei.log" \
    | grep -c "User Data Unregistered")
  [ "$count" -ge 1 ] && pass "user-data SEI seen in $count frames" || fail "no user-data SEI in the video"
}

# Decoded frames sit on the source's capture grid of $1 frames a second:
# every step between presentation times is a whole number of frame
# intervals (within 2 ms), none is zero, and the rate is not above $1. The
# source drops frames when its encoder cannot keep real time (a loaded
# machine, a sanitizer build), so gaps of several intervals are allowed; a
# wrong RTP clock, jittered or duplicated timestamps fail. Without drops
# (the source's status line says) the rate must also reach 95 % of $1.
expect_frame_rate() {
  local fps=$1
  timeout 30 ffprobe -v error -rtsp_transport tcp -read_intervals %+6 -select_streams v \
    -show_frames -show_entries frame=pts_time -of csv=p=0 "$URL" 2> "$WORK/ffprobe_rate.log" \
    | cut -d, -f1 | grep -E '^[0-9]+(\.[0-9]+)?$' > "$WORK/pts.txt"
  local dropped verdict
  dropped=$(grep -E '^\[[0-9:]+\] video' "$PUB_ERR" | tail -n 1 |
    sed -nE 's/.* ([0-9]+) dropped by the source.*/\1/p')
  verdict=$(awk -v fps="$fps" -v dropped="${dropped:-0}" '
    NR == 1 { first = $1 }
    NR > 1 {
      steps = ($1 - prev) * fps; k = int(steps + 0.5)
      if (k < 1 || (steps - k) / fps > 0.002 || (k - steps) / fps > 0.002) bad = bad " " prev "->" $1
    }
    { prev = $1; n++ }
    END {
      rate = (n > 1 && prev > first) ? (n - 1) / (prev - first) : 0
      ok = n >= 5 && bad == "" && rate <= fps * 1.05 && (dropped > 0 || rate >= fps * 0.95)
      printf "%s %.2f fps over %d frames%s", ok ? "ok" : "bad", rate, n, bad == "" ? "" : ", off the grid:" substr(bad, 1, 200)
    }' "$WORK/pts.txt")
  if [ "${verdict%% *}" = "ok" ]; then
    pass "decoded ${verdict#* } on the ${fps} fps grid (${dropped:-0} dropped by the source)"
  else
    fail "decoded ${verdict#* }, nominal $fps fps (${dropped:-0} dropped by the source)"
  fi
}

# A viewer joining a running stream gets its first picture within one key
# frame interval ($1 seconds).
expect_quick_start() {
  local gop=$1 start end elapsed
  start=$(date +%s%N)
  timeout 20 ffmpeg -nostdin -v error -rtsp_transport tcp -i "$URL" -frames:v 1 -f null - \
    > "$WORK/quick_start.log" 2>&1
  end=$(date +%s%N)
  elapsed=$(( (end - start) / 1000000 ))
  if [ "$elapsed" -le $((gop * 1000)) ]; then
    pass "first picture after ${elapsed} ms (key frame interval ${gop} s)"
  else
    fail "first picture after ${elapsed} ms, more than the ${gop} s key frame interval"
  fi
}

# The video recorded over 10 s (ffmpeg -c copy) runs at $1 kbit/s within 25 %.
expect_bit_rate() {
  local target=$1 measured
  timeout 40 ffmpeg -nostdin -v error -rtsp_transport tcp -i "$URL" -map 0:v -c copy -t 10 \
    "$WORK/rate.mkv" > "$WORK/ffmpeg_bit_rate.log" 2>&1
  measured=$(ffprobe -v error -show_entries packet=pts_time,size -of csv=p=0 "$WORK/rate.mkv" \
    2> "$WORK/ffprobe_bit_rate.log" | awk -F, '$1 ~ /^[0-9.]+$/ { if (n++ == 0) first = $1; last = $1; bytes += $2 }
      END { if (last > first) printf "%.0f", bytes * 8 / (last - first) / 1000; else print 0 }')
  if [ "$measured" -ge $((target * 3 / 4)) ] && [ "$measured" -le $((target * 5 / 4)) ]; then
    pass "video at $measured kbit/s (asked for $target)"
  else
    fail "video at $measured kbit/s, asked for $target"
  fi
}

# Over 8 s of stream, audio and video timestamps advance alike (within
# 0.5 s): frames are stamped with their capture time, whatever the encoder
# manages.
expect_av_sync() {
  local spans
  spans=$(timeout 40 ffprobe -v error -rtsp_transport tcp -read_intervals %+8 \
    -show_entries packet=codec_type,pts_time -of csv=p=0 "$URL" 2> "$WORK/ffprobe_sync.log" \
    | awk -F, '$2 ~ /^[0-9.]+$/ { if (!($1 in first)) first[$1] = $2; last[$1] = $2 }
        END { printf "%.3f %.3f", last["video"] - first["video"], last["audio"] - first["audio"] }')
  if awk -v v="${spans% *}" -v a="${spans#* }" 'BEGIN { exit !(a > 7 && v - a < 0.5 && a - v < 0.5) }'; then
    pass "video and audio timestamps span ${spans% *} s and ${spans#* } s"
  else
    fail "video and audio timestamps span ${spans% *} s and ${spans#* } s"
  fi
}


case "$CASE" in
  h264_aac)
    QUIET=""  # the status lines count the frames encoded
    start_publisher --video h264 --audio aac --size 640x360 --fps 25 --user-data "qz-e2e" --user-data-every 1
    sleep 2
    expect_streams "codec_name=h264|width=640|height=360\ncodec_name=aac|sample_rate=48000|channels=1"
    decode_with_ffmpeg udp 5
    decode_with_ffmpeg tcp 5
    play_with_gstreamer tcp 150 audio
    play_with_gstreamer udp 150
    expect_user_data
    if ip -6 addr show lo 2>/dev/null | grep -q '::1'; then
      V4_URL=$URL
      URL=$(echo "$URL" | sed 's#//127.0.0.1:#//[::1]:#')
      expect_streams "codec_name=h264|width=640|height=360\ncodec_name=aac|sample_rate=48000|channels=1"
      decode_with_ffmpeg udp 3
      URL=$V4_URL
    else
      echo "skip: no IPv6 loopback here"
    fi
    expect_frame_rate 25
    expect_quick_start 2
    stop_publisher
    expect_whole_first_gop
    ;;
  h265_aac)
    QUIET=""  # the status lines count the frames encoded
    start_publisher --video h265 --audio aac --size 640x360 --fps 25
    sleep 2
    expect_streams "codec_name=hevc|width=640|height=360\ncodec_name=aac|sample_rate=48000|channels=1"
    decode_with_ffmpeg udp 5
    decode_with_ffmpeg tcp 5
    play_with_gstreamer tcp 150 audio
    expect_frame_rate 25
    stop_publisher
    expect_whole_first_gop
    ;;
  h264_pcma)
    QUIET=""  # the status lines count the frames encoded
    start_publisher --video h264 --audio pcma --size 320x240 --fps 30
    sleep 2
    expect_streams "codec_name=h264|width=320|height=240\ncodec_name=pcm_alaw|sample_rate=8000|channels=1"
    decode_with_ffmpeg udp 5
    decode_with_ffmpeg tcp 5
    play_with_gstreamer tcp 150 audio
    expect_frame_rate 30
    stop_publisher
    expect_whole_first_gop
    ;;
  two_clients)
    # Two servers in one process serve the stream; two viewers at once, one
    # on each; one leaves mid-stream, the other keeps playing.
    start_publisher --size 320x240 --servers 2
    sleep 1
    URL2=$(grep '^rtsp://' "$PUB_OUT" | sed -n 2p | sed -E 's#^rtsp://[^/]+:([0-9]+)/#rtsp://127.0.0.1:\1/#')
    [ -n "$URL2" ] && [ "$URL2" != "$URL" ] && pass "second server at $URL2" || fail "no second server URL"
    timeout 30 ffmpeg -nostdin -v error -rtsp_transport tcp -i "$URL" -t 8 -f null - > "$WORK/ffmpeg_tcp_a.log" 2>&1 &
    A=$!
    timeout 30 ffmpeg -nostdin -v error -rtsp_transport udp -i "$URL2" -t 30 -f null - > "$WORK/ffmpeg_udp_b.log" 2>&1 &
    B=$!
    sleep 3
    kill -KILL "$B" 2>/dev/null
    wait "$A"; STATUS=$?
    if [ "$STATUS" -eq 0 ] && [ ! -s "$WORK/ffmpeg_tcp_a.log" ]; then
      pass "first client kept decoding while the second left"
    else
      fail "first client: exit $STATUS"; head "$WORK/ffmpeg_tcp_a.log"
    fi
    decode_with_ffmpeg tcp 3
    stop_publisher
    for port in "${URL##*:}" "${URL2##*:}"; do
      port=${port%%/*}
      grep -q "^server on port $port: " "$PUB_ERR" && grep -q "^stream live: port $port, " "$PUB_ERR" \
        && pass "summary of the server on port $port" || fail "no summary lines for port $port"
    done
    ;;
  file_source)
    ffmpeg -nostdin -v error -f lavfi -i testsrc=size=320x240:rate=25 -f lavfi -i sine=frequency=500:sample_rate=44100 \
      -t 3 -c:v libx264 -g 25 -bf 0 -pix_fmt yuv420p -c:a aac -ac 2 "$WORK/in.mp4" || { echo "cannot make input"; exit 1; }
    start_publisher --input "$WORK/in.mp4"
    sleep 1
    expect_streams "codec_name=h264|width=320|height=240\ncodec_name=aac|sample_rate=44100|channels=2"
    # Longer than the file: the loop must keep decoding cleanly.
    decode_with_ffmpeg tcp 6
    stop_publisher
    ffmpeg -nostdin -v error -f lavfi -i testsrc=size=320x240:rate=25 -t 2 -c:v libx265 -x265-params bframes=0:log-level=error -pix_fmt yuv420p \
      -f hevc "$WORK/in.h265" || { echo "cannot make input"; exit 1; }
    start_publisher --input "$WORK/in.h265"
    sleep 1
    expect_streams "codec_name=hevc|width=320|height=240"
    decode_with_ffmpeg udp 3
    stop_publisher
    ;;
  open_gop)
    # Files whose container flags as key frames pictures that are no IDR:
    # x264 with periodic intra refresh (recovery points; x264's open GOP
    # needs B-frames, and files with B-frames go out with decode timestamps,
    # on which ffmpeg prints errors of its own) and x265's default open GOP
    # (CRA pictures, IRAP like IDR). Only IDR and IRAP pictures may start a
    # GOP in the sinker: it sends only the IDR slices of a key frame.
    ffmpeg -nostdin -v error -f lavfi -i testsrc=size=320x240:rate=25 -t 4 -pix_fmt yuv420p \
      -c:v libx264 -bf 0 -x264-params keyint=25:intra-refresh=1 "$WORK/refresh.mp4" &&
      ffmpeg -nostdin -v error -f lavfi -i testsrc=size=320x240:rate=25 -t 4 -pix_fmt yuv420p \
        -c:v libx265 -x265-params keyint=25:bframes=0:log-level=error "$WORK/open_gop.mp4" ||
      { echo "cannot make input"; exit 1; }
    for input in refresh.mp4 open_gop.mp4; do
      start_publisher --input "$WORK/$input"
      decode_with_ffmpeg udp 5
      decode_with_ffmpeg tcp 5
      play_with_gstreamer tcp 100
      stop_publisher
      expect_no_log_lines '\[E\]' "sinker errors for $input"
    done
    ;;
  listen)
    # Bound to one address, the server names that address in its URL; a
    # port already taken fails with the system's reason in the log.
    start_publisher --bind 127.0.0.1 --size 320x240
    port=${RAW_URL##*:}
    port=${port%%/*}
    [ "$RAW_URL" = "rtsp://127.0.0.1:$port/live" ] && pass "URL $RAW_URL" || fail "URL $RAW_URL with --bind 127.0.0.1"
    URL=$RAW_URL
    expect_streams "codec_name=h264|width=320|height=240\ncodec_name=aac|sample_rate=48000|channels=1"
    "$PUBLISH" -p "$port" --bind 127.0.0.1 -t 5 > "$WORK/busy.out" 2> "$WORK/busy.err"; status=$?
    if [ "$status" -eq 2 ] && grep -q "^VartoLogIOS \[E\] QZRtspServer::Start cannot listen on port $port at 127.0.0.1: bind: Address already in use" "$WORK/busy.out"; then
      pass "a taken port: exit 2, the log says why"
    else
      fail "a taken port: exit $status, $(cat "$WORK/busy.err")"
    fi
    stop_publisher
    if ip -6 addr show lo 2>/dev/null | grep -q '::1'; then
      start_publisher --bind ::1 --size 320x240
      port=${RAW_URL##*:}
      port=${port%%/*}
      [ "$RAW_URL" = "rtsp://[::1]:$port/live" ] && pass "URL $RAW_URL" || fail "URL $RAW_URL with --bind ::1"
      URL=$RAW_URL
      expect_streams "codec_name=h264|width=320|height=240\ncodec_name=aac|sample_rate=48000|channels=1"
      stop_publisher
    else
      echo "skip: no IPv6 loopback here"
    fi
    ;;
  live_source)
    # The test picture makes the encoder spend the bit rate it is given.
    start_publisher --size 640x360 --bitrate 1000
    expect_bit_rate 1000
    stop_publisher
    # An encoder that cannot keep real time: the source drops frames, says
    # so, and audio and video stay together.
    QUIET=""
    start_publisher --size 320x240 --fps 25 --slow-encoder 60
    expect_av_sync
    dropped=$(grep -E '^\[[0-9:]+\] video' "$PUB_ERR" | tail -1 | sed -nE 's/.* ([0-9]+) dropped by the source.*/\1/p')
    [ "${dropped:-0}" -gt 0 ] && pass "the status line reports $dropped frames dropped by the source" \
      || fail "the status line reports no frame dropped by the source"
    stop_publisher
    ;;
  bad_input)
    for args in "--size 13x7" "--bogus" "--input $WORK/missing.mp4" "--audio opus"; do
      "$PUBLISH" -p 0 $args > "$WORK/bad.out" 2> "$WORK/bad.err"; status=$?
      lines=$(wc -l < "$WORK/bad.err")
      [ "$status" -eq 2 ] && [ "$lines" -eq 1 ] && pass "'$args' exits 2 with one line" \
        || fail "'$args': exit $status, $lines lines: $(cat "$WORK/bad.err")"
    done
    ffmpeg -nostdin -v error -f lavfi -i sine -t 1 "$WORK/tone.wav"
    "$PUBLISH" -p 0 --input "$WORK/tone.wav" > "$WORK/bad.out" 2> "$WORK/bad.err"; status=$?
    [ "$status" -eq 2 ] && pass "a file without a supported stream exits 2" || fail "tone.wav: exit $status"
    "$PUBLISH" --help > "$WORK/help.out"; status=$?
    [ "$status" -eq 0 ] && grep -q -- "--input" "$WORK/help.out" && pass "--help" || fail "--help: exit $status"
    ;;
  auth)
    # Nonces live 1 s (QZ_AUTH_NONCE_S): every PAUSE and PLAY below finds
    # its nonce expired, is answered 401 with stale=true and sent again by
    # the client with the new nonce, without asking for the password. The
    # pausing viewers play QZ_AUTH_ROUNDS times QZ_AUTH_PLAY_S seconds with
    # 2 s pauses in between (set them for a long run by hand).
    rounds=${QZ_AUTH_ROUNDS:-3} play_s=${QZ_AUTH_PLAY_S:-2}
    limit=$((rounds * (play_s + 2) + 30))
    start_publisher --size 320x240 --user viewer --password "s3cret word" \
      --nonce-lifetime "${QZ_AUTH_NONCE_S:-1}"
    sleep 1
    if timeout 15 ffprobe -v error -rtsp_transport tcp "$URL" > "$WORK/noauth.log" 2>&1; then
      fail "ffprobe without credentials was let in"
    else
      grep -q "401" "$WORK/noauth.log" && pass "no credentials: 401" || fail "no credentials: $(head -1 "$WORK/noauth.log")"
    fi
    GOOD=$URL
    URL=$(echo "$GOOD" | sed 's#rtsp://#rtsp://viewer:s3cret%20word@#')
    expect_streams "codec_name=h264|width=320|height=240\ncodec_name=aac|sample_rate=48000|channels=1"
    decode_with_ffmpeg tcp 3
    if timeout 15 ffprobe -v error -rtsp_transport tcp "$(echo "$GOOD" | sed 's#rtsp://#rtsp://viewer:wrong@#')" \
      > /dev/null 2>&1; then
      fail "a wrong password was let in"
    else
      pass "wrong password refused"
    fi
    timeout 30 gst-launch-1.0 -e rtspsrc location="$GOOD" protocols=tcp user-id=viewer \
      user-pw="s3cret word" ! "application/x-rtp,media=video" ! decodebin ! videoconvert \
      ! identity eos-after=50 ! fakesink > "$WORK/gst_auth.log" 2>&1
    grep -q "EOS received" "$WORK/gst_auth.log" && pass "GStreamer (user-id, user-pw) decoded 50 buffers" \
      || fail "GStreamer with user-id and user-pw: $(grep -m1 ERROR "$WORK/gst_auth.log")"
    if [ -x "${QZ_FFMPEG_PAUSE_PLAY:-}" ]; then
      timeout "$limit" "$QZ_FFMPEG_PAUSE_PLAY" "$URL" "$rounds" "$play_s" 2 > "$WORK/ffmpeg_pause_play.log" 2>&1
      status=$?
      stale=$(sed -nE 's/^stale challenges answered: ([0-9]+),.*/\1/p' "$WORK/ffmpeg_pause_play.log")
      if [ "$status" -eq 0 ] && [ "${stale:-0}" -ge $((2 * (rounds - 1))) ]; then
        pass "FFmpeg paused and played $rounds times, $stale stale challenges answered"
      else
        fail "FFmpeg pausing: exit $status, ${stale:-no} stale challenges: $(tail -3 "$WORK/ffmpeg_pause_play.log")"
      fi
    else
      fail "QZ_FFMPEG_PAUSE_PLAY names no program (build qz_ffmpeg_pause_play)"
    fi
    if /usr/bin/python3 -c 'import gi; gi.require_version("Gst", "1.0")' 2> /dev/null; then
      timeout "$limit" /usr/bin/python3 "$(dirname "$0")/gst_pause_play.py" "$GOOD" viewer "s3cret word" \
        "$rounds" "$play_s" 2 > "$WORK/gst_pause_play.log" 2>&1
      status=$?
      [ "$status" -eq 0 ] && pass "GStreamer paused and played $rounds times" \
        || fail "GStreamer pausing: exit $status: $(tail -3 "$WORK/gst_pause_play.log")"
    else
      fail "no python3-gi for GStreamer (scripts/install_deps.sh installs it)"
    fi
    stop_publisher
    ;;
  http_tunnel)
    # RTSP tunnelled through HTTP: FFmpeg's http transport and GStreamer's
    # rtsph:// URLs open a GET for what the server sends and a POST for
    # their base64 requests; audio and video, 10 s each. FFmpeg on the RTSP
    # port (plain RTSP stays served there), GStreamer on the separate HTTP
    # port.
    start_publisher --size 320x240 --http-tunnel --http-port 0
    HTTP_PORT=$(sed -n 's/^HTTP tunnel port \([0-9]*\)$/\1/p' "$PUB_OUT")
    if [ -z "$HTTP_PORT" ]; then
      fail "the publisher did not name its HTTP tunnel port"; cat "$PUB_OUT"
    fi
    sleep 1
    decode_with_ffmpeg http 10
    RTSP_URL=$URL
    URL=$(echo "$RTSP_URL" | sed -E "s#^rtsp://([^/:]+):[0-9]+/#rtsph://\1:$HTTP_PORT/#")
    play_with_gstreamer tcp 300 audio
    URL=$RTSP_URL
    decode_with_ffmpeg tcp 3
    stop_publisher
    ;;
  rtsps)
    # RTSP over TLS on a port of its own, with a self-signed certificate
    # made on the first start in the test's folder (never the user's home)
    # and kept for the next start: FFmpeg (5.1 checks no certificate, and
    # its RTSP demuxer takes no option to) and GStreamer (told not to)
    # decode audio and video inside TLS, 10 s each.
    start_publisher --size 320x240 --tls-port 0 --tls-dir "$WORK/tls"
    TLS_PORT=$(sed -n 's/^TLS port \([0-9]*\)$/\1/p' "$PUB_OUT")
    FINGERPRINT=$(sed -n 's/^TLS certificate SHA-256 fingerprint \([0-9A-F:]*\)$/\1/p' "$PUB_OUT")
    MADE=$(openssl x509 -in "$WORK/tls/cert.pem" -noout -fingerprint -sha256 2>&1 | sed 's/^.*=//')
    KEY_MODE=$(stat -c %a "$WORK/tls/key.pem" 2>&1)
    if [ -n "$TLS_PORT" ] && [ -n "$FINGERPRINT" ] && [ "$FINGERPRINT" = "$MADE" ] && [ "$KEY_MODE" = 600 ]; then
      pass "TLS port $TLS_PORT, certificate $FINGERPRINT, key mode $KEY_MODE"
    else
      fail "TLS port '$TLS_PORT', fingerprint '$FINGERPRINT' of '$MADE', key mode $KEY_MODE"
    fi
    sleep 1
    URL="rtsps://127.0.0.1:$TLS_PORT/live"
    decode_with_ffmpeg tcp 10
    play_with_gstreamer tcp 300 audio
    stop_publisher
    start_publisher --size 320x240 --tls-port 0 --tls-dir "$WORK/tls"
    AGAIN=$(sed -n 's/^TLS certificate SHA-256 fingerprint \([0-9A-F:]*\)$/\1/p' "$PUB_OUT")
    [ "$AGAIN" = "$FINGERPRINT" ] && pass "the next start serves the same certificate" \
      || fail "the next start serves $AGAIN, not $FINGERPRINT"
    stop_publisher
    ;;
  push_ffmpeg)
    run_push_ffmpeg_case  # tests/e2e/push_relay.sh
    ;;
  multicast)
    run_multicast_case  # tests/e2e/multicast.sh: within a network namespace of its own
    ;;
  push_gst_record_tcp | push_gst_record_udp | push_gst_record_wrong_password | push_gst_record_tls)
    run_push_case "${CASE#push_gst_record_}"  # tests/e2e/push_relay.sh
    ;;
  record_roundtrip)
    # $PUBLISH is the record_roundtrip program here. Real encoder output goes
    # through the sinker; the records, written back as Annex-B, must decode
    # to as many frames as the input, without error.
    for codec in h264 h265; do
      if [ "$codec" = h264 ]; then
        enc="-c:v libx264 -bsf:v h264_metadata=aud=insert -f h264"
      else
        enc="-c:v libx265 -x265-params log-level=error:aud=1 -f hevc"
      fi
      ffmpeg -nostdin -v error -f lavfi -i testsrc=size=320x240:rate=25 -t 4 -pix_fmt yuv420p \
        -g 25 $enc "$WORK/in.$codec" || { fail "cannot encode $codec"; continue; }
      for data in "" "qz-roundtrip"; do
        args=("$codec" "$WORK/in.$codec" "$WORK/out.$codec")
        [ -n "$data" ] && args+=(--user-data "$data")
        # shellcheck disable=SC2086  # QZ_RUN_PREFIX: an emulator and its options, or nothing
        ${QZ_RUN_PREFIX:-} "$PUBLISH" "${args[@]}" || { fail "$codec: the sinker dropped access units"; continue; }
        want=$(ffprobe -v error -count_frames -select_streams v -show_entries stream=nb_read_frames -of csv=p=0 "$WORK/in.$codec")
        got=$(ffprobe -v error -count_frames -select_streams v -show_entries stream=nb_read_frames -of csv=p=0 "$WORK/out.$codec")
        errors=$(ffmpeg -nostdin -v error -i "$WORK/out.$codec" -f null - 2>&1 | wc -l)
        if [ "$got" = "$want" ] && [ "$errors" -eq 0 ]; then
          pass "$codec records${data:+ with user data} decode to $got frames, no error"
        else
          fail "$codec records${data:+ with user data}: $got frames (want $want), $errors error lines"
        fi
        if [ "$codec" = h264 ] && [ -n "$data" ]; then
          seen=$(ffprobe -v error -select_streams v -show_frames -show_entries side_data=side_data_type -of csv=p=0 "$WORK/out.$codec" | grep -c "User Data Unregistered")
          [ "$seen" -eq "$want" ] && pass "user-data SEI on all $seen frames" || fail "user-data SEI on $seen of $want frames"
        fi
      done
    done
    ;;
  *)
    echo "unknown case $CASE"; exit 2
    ;;
esac

echo "$((FAILURES == 0 ? 1 : 0)) passed, $FAILURES failed" | sed 's/^1 passed, 0 failed$/e2e '"$CASE"': passed/'
[ "$FAILURES" -eq 0 ]
