#!/usr/bin/env bash
# The sinker and the hand-off it posts into need only the C++ standard
# library: no header of Asio, OpenSSL or FFmpeg may be reached from their
# sources, directly or through another header of the project.
# Usage: check_std_only.sh CXX SOURCE_ROOT SOURCE...
set -uo pipefail
CXX=$1
ROOT=$2
shift 2
status=0
for source in "$@"; do
  case $source in /*) ;; *) source="$ROOT/$source" ;; esac
  if ! deps=$("$CXX" -std=c++17 -I"$ROOT" -M "$source" 2>&1); then
    echo "cannot list the headers of $source:"; echo "$deps"; status=1; continue
  fi
  foreign=$(echo "$deps" | tr ' \\' '\n\n' |
    grep -E '/(asio|openssl|libav[a-z]*|gst[a-z-]*)/|/asio\.hpp$' | sort -u)
  if [ -n "$foreign" ]; then
    echo "$source reaches headers outside the standard library:"; echo "$foreign"; status=1
  fi
done
[ "$status" -eq 0 ] && echo "$# sources use only the standard library"
exit "$status"
