#!/usr/bin/env bash
# Runs our server (qz_rtsp_publish serving a file) and GStreamer's
# (qz_gst_rtsp_peer) in turn on the same input, 1080p30 H.264 4 Mbit/s with a
# 2 s key-frame interval and no B-frames plus AAC 128 kbit/s, the server
# pinned to core 0 and qz_rtsp_load to core 1, for each reader count. Per
# point: server CPU (% of a core, the run time of its threads from
# /proc/PID/task/*/schedstat in ns over a 10 s window after 5 s of warm-up),
# resident memory, loss and delay over the best frame. The load client polls
# its sockets every QZ_BENCH_POLL_MS (default 1) instead of sleeping in
# epoll_wait, so that a server's loopback writes do not each pay for waking it
# (see qz_rtsp_load); 0 restores the blocking client. Each point runs
# QZ_BENCH_REPEAT times (default 3) per server, the servers taking turns, and
# the run with the median CPU is reported. Over UDP ours also runs without segmentation offload
# (--no-udp-gso; QZ_BENCH_NOGSO=0 skips those runs). Ours also reports its own posted-to-written and
# pushed-to-written delays over the same window (its exit summary). Prints a Markdown table with the ratios
# ours/peer: of the two medians, and the median and range of the ratios of
# the runs made back to back (run i of ours against run i of the peer, so a
# slow spell of the VM that lasts a minute falls on both sides of a pair),
# and of the cost of an added reader: (CPU at N - CPU at 1) / (N - 1), each
# server against its own one-reader point of the same transport (so the
# fixed cost of reading the file and running the pipeline, which the peer
# pays only once a client plays, is left out; the peer's figure at N is the
# median of its runs that kept all N readers). Writes it into BENCHMARKS.md between the compare_servers
# markers (QZ_BENCH_WRITE=0: print only).
# QZ_BENCH_RPS=1 (needs root) steers loopback's receive processing to the
# load client's core for the run (RPS on lo, and a longer per-core backlog so
# that the steered packets are not dropped there), then restores both. Over
# loopback the readers' receive path otherwise runs on the server's core,
# inside its sendmsg/sendmmsg calls; with remote readers it runs on their
# machines. That table goes between the compare_servers_rps markers.
#   bench/compare_servers.sh [BUILD_DIR]      (default build; run by hand)
set -uo pipefail
BUILD=${1:-build}
ROOT=$(cd "$(dirname "$0")/.." && pwd)
INPUT=${QZ_BENCH_INPUT:-$ROOT/$BUILD/bench_input_1080p30.mp4}
POINTS=${QZ_BENCH_POINTS:-"tcp:1 tcp:10 tcp:50 tcp:100 tcp:200 tcp:500 udp:1 udp:10 udp:50 udp:100"}
PORT=18554
REPEAT=${QZ_BENCH_REPEAT:-3}
WRITE=${QZ_BENCH_WRITE:-1}
POLL_MS=${QZ_BENCH_POLL_MS:-1}
RPS=${QZ_BENCH_RPS:-0}
NOGSO=${QZ_BENCH_NOGSO:-1}
OUT=$(mktemp)
RPS_CPUS=/sys/class/net/lo/queues/rx-0/rps_cpus
BACKLOG=/proc/sys/net/core/netdev_max_backlog
restore() {
  rm -f "$OUT" "$OUT".ours* "$OUT".peer /tmp/qz_load.$$ /tmp/qz_pub.$$
  if [ -n "${old_rps:-}" ]; then
    echo "$old_rps" > "$RPS_CPUS"
    echo "$old_backlog" > "$BACKLOG"
  fi
}
trap restore EXIT
MARK=compare_servers
if [ "$RPS" = 1 ]; then
  MARK=compare_servers_rps
  rps_value=$(cat "$RPS_CPUS") && backlog_value=$(cat "$BACKLOG") || exit 1
  echo 2 > "$RPS_CPUS" || { echo "cannot write $RPS_CPUS (root needed)" >&2; exit 1; }
  old_rps=$rps_value old_backlog=$backlog_value
  echo 10000 > "$BACKLOG"
fi

if [ ! -s "$INPUT" ]; then
  echo "making $INPUT" >&2
  ffmpeg -nostdin -v error -y -f lavfi -i testsrc2=size=1920x1080:rate=30 \
    -f lavfi -i sine=frequency=440:sample_rate=48000 -t 150 \
    -c:v libx264 -preset veryfast -b:v 4M -maxrate 4M -bufsize 4M -g 60 -keyint_min 60 \
    -sc_threshold 0 -bf 0 -pix_fmt yuv420p -c:a aac -b:a 128k -ac 2 "$INPUT" || exit 1
fi

# CPU time of every thread of a process, in ns.
cpu_ns() { cat /proc/"$1"/task/*/schedstat 2>/dev/null | awk '{ns += $1} END {if (NR) printf "%.0f", ns}'; }
rss_kb() { awk '/VmRSS/ {print $2}' "/proc/$1/status" 2>/dev/null; }

# measure SERVER_KIND TRANSPORT READERS
#   -> "cpu% rss_MB loss p50 p99 alive write_p50 write_p99 push_p99"
# SERVER_KIND: ours, ours-nogso or peer.
measure() {
  local kind=$1 transport=$2 readers=$3 pid
  if [ "$kind" = peer ]; then
    taskset -c 0 "$ROOT/$BUILD/bench/qz_gst_rtsp_peer" "$INPUT" $PORT > /dev/null 2>&1 &
  else
    local extra=()
    [ "$kind" = ours-nogso ] && extra=(--no-udp-gso)
    # The delay window opens once every reader joined (7 s of its 20 s).
    taskset -c 0 "$ROOT/$BUILD/tools/qz_rtsp_publish" -p $PORT --input "$INPUT" \
      --max-clients 1000 --max-per-address 0 --stats-after 7 "${extra[@]}" > /dev/null 2> /tmp/qz_pub.$$ &
  fi
  pid=$!
  sleep 2
  local flag=""
  [ "$transport" = udp ] && flag="--udp"
  taskset -c 1 "$ROOT/$BUILD/bench/qz_rtsp_load" "rtsp://127.0.0.1:$PORT/live" \
    --sessions "$readers" --seconds 17 --poll-ms "$POLL_MS" $flag > /tmp/qz_load.$$ 2>&1 &
  local load=$!
  sleep 5
  local t0 c0 t1 c1 rss
  t0=$(date +%s.%N); c0=$(cpu_ns $pid)
  sleep 10
  t1=$(date +%s.%N); c1=$(cpu_ns $pid); rss=$(rss_kb $pid)
  # A server that aborted in the window (GStreamer's does at 100 TCP readers
  # now and then) has no figures; its alive count marks the point.
  c0=${c0:-0}
  [ -n "$c1" ] || c1=$c0
  rss=${rss:-0}
  wait $load
  kill -INT $pid 2>/dev/null; sleep 1; kill -KILL $pid 2>/dev/null; wait $pid 2>/dev/null
  local summary written="" w50="-" w99="-" p99push="-"
  summary=$(grep '^summary' /tmp/qz_load.$$)
  if [ "$kind" != peer ]; then
    written=$(grep '^stream live:' /tmp/qz_pub.$$)
    w50=$(echo "$written" | sed -nE 's/.*posted-to-written delay p50 ([0-9.]+) ms.*/\1/p')
    w99=$(echo "$written" | sed -nE 's/.*posted-to-written delay p50 [0-9.]+ ms, p99 ([0-9.]+) ms.*/\1/p')
    p99push=$(echo "$written" | sed -nE 's/.*pushed-to-written p50 [0-9.]+ ms, p99 ([0-9.]+) ms.*/\1/p')
  fi
  local cpu
  cpu=$(echo "($c1 - $c0) / 10000000 / ($t1 - $t0)" | bc -l)
  local alive loss p50 p99
  alive=$(echo "$summary" | sed -E 's/.*sessions ([0-9]+)\/.*/\1/')
  loss=$(echo "$summary" | sed -E 's/.*loss ([0-9.]+) %.*/\1/')
  p50=$(echo "$summary" | sed -E 's/.*p50 ([0-9.]+) ms.*/\1/')
  p99=$(echo "$summary" | sed -E 's/.*p99 ([0-9.]+) ms.*/\1/')
  printf "%.2f %.1f %s %s %s %s %s %s %s" "$cpu" "$(echo "$rss / 1024" | bc -l)" "${loss:-?}" \
    "${p50:-?}" "${p99:-?}" "${alive:-0}" "${w50:--}" "${w99:--}" "${p99push:--}"
}

# The middle line of its input by the number in the first column (the lower
# of the two middle lines for an even count), or nothing for no input: the
# run with the median CPU among the lines of a file of runs.
middle_line() {
  sort -n -k1,1 | awk '{l[NR] = $0} END {if (NR) print l[int((NR + 1) / 2)]}'
}

# Ratios ours/peer of the runs made back to back, over the pairs where the
# peer kept every reader: "median (min-max)", or "-" when there is none.
paired_ratios() {
  paste -d ' ' <(awk '{print $1}' "$1") <(awk '{print $1, $6}' "$2") |
    awk -v readers="$3" '$3 >= readers && $2 > 0 {printf "%.3f\n", $1 / $2}' | sort -n |
    awk '{r[NR] = $1} END {
      if (NR == 0) { print "-"; exit }
      m = NR % 2 ? r[(NR + 1) / 2] : (r[NR / 2] + r[NR / 2 + 1]) / 2
      printf "%.2f (%.2f-%.2f)", m, r[1], r[NR] }'
}

# Each transport's one-reader CPU per server, for the cost of an added reader.
declare -A base_ours base_peer
{
  echo "| readers | ours CPU % | peer CPU % | ours/peer CPU | ours/peer paired, median (range) | per added reader ours/peer % (ratio) | ours CPU % without GSO | ours RSS MB | peer RSS MB | ours loss % | peer loss % | ours delay p50/p99 ms | peer delay p50/p99 ms | ours posted-to-written p50/p99 ms | ours pushed-to-written p99 ms | alive ours/peer |"
  echo "| --- | --- | --- | --- | --- | --- | --- | --- | --- | --- | --- | --- | --- | --- | --- | --- |"
  for point in $POINTS; do
    transport=${point%%:*}
    readers=${point##*:}
    # The servers take turns run by run, so that a slow spell of the VM
    # falls on both rather than on one server's three runs.
    kinds="ours peer"
    [ "$transport" = udp ] && [ "$NOGSO" = 1 ] && kinds="ours peer ours-nogso"
    for kind in $kinds; do : > "$OUT.$kind"; done
    for i in $(seq 1 "$REPEAT"); do
      for kind in $kinds; do
        measure "$kind" "$transport" "$readers" >> "$OUT.$kind"
        echo >> "$OUT.$kind"
        echo "$(date -u +%T) $readers $transport $kind run $i: $(tail -n 1 "$OUT.$kind")" >&2
      done
    done
    read -r oc om ol o50 o99 oa ow50 ow99 op99 <<< "$(middle_line < "$OUT.ours")"
    read -r gc gm gl g50 g99 ga _ <<< "$(middle_line < "$OUT.peer")"
    nogso="-"
    if [ -s "$OUT.ours-nogso" ] && [ "$transport" = udp ]; then
      read -r nogso _ <<< "$(middle_line < "$OUT.ours-nogso")"
    fi
    ratio=$(printf "%.2f" "$(echo "if ($gc > 0) $oc / $gc else 0" | bc -l)")
    paired=$(paired_ratios "$OUT.ours" "$OUT.peer" "$readers")
    added="-"
    served=$(awk -v n="$readers" '$6 >= n {print $1}' "$OUT.peer" | middle_line)
    if [ "$readers" = 1 ]; then
      base_ours[$transport]=$oc
      base_peer[$transport]=$served
    else
      bo=${base_ours[$transport]:-} bp=${base_peer[$transport]:-}
      if [ -n "$bo" ] && [ -n "$bp" ] && [ -n "$served" ]; then
        added=$(echo "$oc $bo $served $bp $readers" | awk '{o = ($1 - $2) / ($5 - 1); p = ($3 - $4) / ($5 - 1)
          printf "%.3f/%.3f (%s)", o, p, (p > 0 ? sprintf("%.2f", o / p) : "-")}')
      fi
    fi
    if [ "${ga:-0}" -lt "$readers" ]; then
      # The peer closed sessions and stopped serving: no CPU figure to compare.
      gc="-" ratio="-" g50="-" g99="-"
    fi
    printf "| %s %s | %s | %s | %s | %s | %s | %s | %s | %s | %s | %s | %s/%s | %s/%s | %s/%s | %s | %s/%s |\n" \
      "$readers" "$transport" "$oc" "$gc" "$ratio" "$paired" "$added" "$nogso" "$om" "$gm" "$ol" "$gl" "$o50" "$o99" \
      "$g50" "$g99" "$ow50" "$ow99" "$op99" "$oa" "$ga"
  done
} | tee "$OUT"

if [ "$WRITE" = 1 ]; then
  doc="$ROOT/BENCHMARKS.md"
  begin="<!-- $MARK:begin -->"
  end="<!-- $MARK:end -->"
  if grep -qF "$begin" "$doc" && grep -qF "$end" "$doc"; then
    {
      echo "$begin"
      echo "Written by \`bench/compare_servers.sh\` on $(date -u +%Y-%m-%d), commit" \
        "$(git -C "$ROOT" rev-parse --short HEAD), $(nproc) cores ($(grep -m1 'model name' /proc/cpuinfo | sed 's/.*: //')), median of $REPEAT runs per point, load client polling every $POLL_MS ms (0: blocking)$([ "$RPS" = 1 ] && echo ", loopback receive processing on the load client's core (RPS)"):"
      echo
      cat "$OUT"
      echo "$end"
    } > "$OUT.section"
    awk -v section="$OUT.section" -v begin="$begin" -v end="$end" '
      $0 == begin { while ((getline line < section) > 0) print line; skip = 1; next }
      $0 == end { skip = 0; next }
      !skip { print }' "$doc" > "$OUT.doc" && mv "$OUT.doc" "$doc"
    rm -f "$OUT.section"
    echo "table written into $doc" >&2
  else
    echo "BENCHMARKS.md has no $MARK markers: table not written" >&2
  fi
fi
