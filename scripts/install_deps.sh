#!/usr/bin/env bash
# Installs, on a Debian machine, whatever the build, the tools and the tests
# need and is missing. Safe to run again: installed packages are skipped.
set -euo pipefail

PACKAGES=(
  build-essential cmake ninja-build pkg-config clang libclang-rt-14-dev
  libgtest-dev libgmock-dev libbenchmark-dev
  libasio-dev libssl-dev
  libavcodec-dev libavformat-dev libavutil-dev libswscale-dev libswresample-dev
  ffmpeg
  gstreamer1.0-tools gstreamer1.0-plugins-base gstreamer1.0-plugins-good
  gstreamer1.0-plugins-bad gstreamer1.0-libav
  libgstrtspserver-1.0-dev
  bc util-linux strace iproute2 python3 python3-gi gir1.2-gstreamer-1.0
)

missing=()
for pkg in "${PACKAGES[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$pkg" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$pkg")
  fi
done

if [ "${#missing[@]}" -eq 0 ]; then
  echo "install_deps: everything is installed"
  exit 0
fi

echo "install_deps: installing ${missing[*]}"
SUDO=""
if [ "$(id -u)" -ne 0 ]; then
  SUDO="sudo"
fi
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update -qq
$SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}"
