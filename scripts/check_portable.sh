#!/usr/bin/env bash
# Fails where the library's or the tests' sources use a header or a call
# that only Linux has outside the net layer's platform unit
# (protocol/rtsp_in_server/net/platform/): such code does not build for iOS.
# Prints file:line and the line of each. Comments do not count.
#
#   scripts/check_portable.sh [repository root]
set -uo pipefail
cd "${1:-$(dirname "$0")/..}" || exit 1

PLATFORM=protocol/rtsp_in_server/net/platform/
# The library, its command-line publisher and the tests. The benchmarks and
# fuzzers run on Linux only.
SOURCES=(base utility topcommon common protocol publisher tools tests)
CALLS='sendmmsg|recvmmsg|mmsghdr|UDP_SEGMENT|UDP_GRO|SOL_UDP|MSG_NOSIGNAL|MSG_ZEROCOPY'
CALLS+='|SO_ZEROCOPY|SO_NO_CHECK|SO_BINDTODEVICE|SO_PEERCRED|SO_BUSY_POLL|TCP_CORK|TCP_INFO'
CALLS+='|SIOCOUTQ|IP_MTU_DISCOVER|accept4|pipe2|SOCK_NONBLOCK|SOCK_CLOEXEC|epoll_[a-z_]+'
CALLS+='|eventfd|timerfd_[a-z_]+|signalfd|inotify_[a-z_]+|memfd_create|sendfile|gettid|prctl'
HEADERS='<(linux|asm|netpacket)/|<sys/(epoll|eventfd|timerfd|signalfd|inotify|prctl|sendfile|sysinfo)\.h>'

found=0
while IFS= read -r -d '' file; do
  # Comments become blank (keeping the line count); string literals stay.
  hits=$(perl -0777 -pe '
    s{("(?:\\.|[^"\\\n])*"|'"'"'(?:\\.|[^'"'"'\\\n])*'"'"')|//[^\n]*|/\*.*?\*/}
     { defined $1 ? $1 : "\n" x ($& =~ tr/\n//) }gse' "$file" |
    grep -nE "\\b($CALLS)\\b|$HEADERS" | cut -d: -f1)
  for line in $hits; do
    echo "$file:$line: $(sed -n "${line}p" "$file")"
    found=1
  done
done < <(find "${SOURCES[@]}" -path "$PLATFORM*" -prune -o -type f \
           \( -name '*.h' -o -name '*.cc' -o -name '*.c' -o -name '*.cpp' -o -name '*.mm' \) \
           -print0 | sort -z)

if [ "$found" -ne 0 ]; then
  echo "Linux-only calls or headers outside $PLATFORM (move them there, behind a portable function)"
  exit 1
fi
echo "no Linux-only calls or headers outside $PLATFORM"
