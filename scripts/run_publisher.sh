#!/usr/bin/env bash
# The main job: installs what is missing, builds everything and serves a live
# RTSP stream from the built-in test source at rtsp://<this host>:8554/live.
# Extra arguments go to qz_rtsp_publish (see --help), e.g. --video h265.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install_deps.sh
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo > /dev/null
cmake --build build -j "$(nproc)" --target qz_rtsp_publish
exec build/tools/qz_rtsp_publish "$@"
