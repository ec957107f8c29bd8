#!/usr/bin/env bash
# Installs, on a Debian machine, whatever the build, the tools and the tests
# need and is missing. Safe to run again: installed packages are skipped.
# When QZ_TEST_CONFIGS names aarch64 or armv7, also the cross toolchains,
# qemu-user and the target's libraries (see install_cross below).
set -euo pipefail

SUDO=""
if [ "$(id -u)" -ne 0 ]; then
  SUDO="sudo"
fi
export DEBIAN_FRONTEND=noninteractive

# glib-networking is GStreamer's TLS (rtsps:// URLs); the openssl command
# checks the certificate's fingerprint in the rtsps end-to-end test.
PACKAGES=(
  build-essential cmake ninja-build pkg-config clang libclang-rt-14-dev
  libgtest-dev libgmock-dev libbenchmark-dev
  libasio-dev libssl-dev
  libavcodec-dev libavformat-dev libavutil-dev libswscale-dev libswresample-dev
  ffmpeg
  gstreamer1.0-tools gstreamer1.0-plugins-base gstreamer1.0-plugins-good
  gstreamer1.0-plugins-bad gstreamer1.0-libav glib-networking
  libgstrtspserver-1.0-dev
  bc util-linux strace iproute2 python3 python3-gi gir1.2-gstreamer-1.0 openssl
)

missing=()
for pkg in "${PACKAGES[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$pkg" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$pkg")
  fi
done

if [ "${#missing[@]}" -eq 0 ]; then
  echo "install_deps: everything is installed"
else
  echo "install_deps: installing ${missing[*]}"
  $SUDO apt-get update -qq
  $SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi

# The newest version of package $1 that every architecture in $2...
# offers, or nothing.
common_version() {
  local pkg=$1 arch common="" versions best="" v
  shift
  for arch in "$@"; do
    versions=$(apt-cache madison "$pkg:$arch" 2>/dev/null | awk -F'|' '{gsub(/ /, "", $2); print $2}' | sort -u)
    if [ -z "$common" ]; then
      common=$versions
    else
      common=$(comm -12 <(echo "$common") <(echo "$versions"))
    fi
  done
  for v in $common; do
    if [ -z "$best" ] || dpkg --compare-versions "$v" gt "$best"; then
      best=$v
    fi
  done
  echo "$best"
}

# Cross builds: Debian's cross compilers, qemu-user to run what they build,
# and the target's OpenSSL and GoogleTest as multiarch packages. A library
# installed for several architectures must have one version on all of them
# (dpkg refuses otherwise), and a security update may reach the build
# machine's architecture before the others: the newest version they all
# have is installed everywhere, the build machine's copy included.
install_cross() {
  local host arches=() tools=() arch dpkg_arch
  host=$(dpkg --print-architecture)
  for config in ${QZ_TEST_CONFIGS:-}; do
    case $config in
      aarch64) arches+=(arm64); tools+=(g++-aarch64-linux-gnu) ;;
      armv7) arches+=(armhf); tools+=(g++-arm-linux-gnueabihf) ;;
    esac
  done
  [ "${#arches[@]}" -gt 0 ] || return 0
  for arch in "${arches[@]}"; do
    if ! dpkg --print-foreign-architectures | grep -qx "$arch"; then
      $SUDO dpkg --add-architecture "$arch"
    fi
  done
  local wanted=(qemu-user "${tools[@]}")
  for pkg in libssl-dev libssl3 libgtest-dev libgmock-dev; do
    for dpkg_arch in "$host" "${arches[@]}"; do
      wanted+=("$pkg:$dpkg_arch")
    done
  done
  local missing_cross=()
  for pkg in "${wanted[@]}"; do
    if ! dpkg-query -W -f='${Status}' "$pkg" 2>/dev/null | grep -q "install ok installed"; then
      missing_cross+=("$pkg")
    fi
  done
  [ "${#missing_cross[@]}" -gt 0 ] || { echo "install_deps: cross toolchains installed"; return 0; }
  echo "install_deps: installing for cross builds: ${missing_cross[*]}"
  # A mirror that is syncing one architecture's index fails the update;
  # what the others offer is still used, and the install below says what
  # it could not find.
  $SUDO apt-get update -qq || echo "install_deps: apt-get update reported errors; going on"
  local install=(qemu-user "${tools[@]}") version
  for pkg in libssl-dev libssl3 libgtest-dev libgmock-dev; do
    version=$(common_version "$pkg" "$host" "${arches[@]}")
    if [ -z "$version" ]; then
      echo "install_deps: no version of $pkg is offered for all of $host ${arches[*]}"
      return 1
    fi
    for dpkg_arch in "$host" "${arches[@]}"; do
      install+=("$pkg:$dpkg_arch=$version")
    done
  done
  $SUDO apt-get install -y -qq --no-install-recommends --allow-downgrades "${install[@]}"
}
install_cross
