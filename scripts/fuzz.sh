#!/usr/bin/env bash
# Builds the libFuzzer targets with clang (ASan + UBSan) and runs each for
# the given number of seconds (default 15) over its corpus in fuzz/corpus/.
# New inputs go to a scratch folder, so the repository's corpus stays as is;
# a crash leaves its input in build-fuzz/ and fails the script.
set -euo pipefail
cd "$(dirname "$0")/.."
SECONDS_PER_TARGET=${1:-15}
cmake -S . -B build-fuzz -G Ninja -DCMAKE_BUILD_TYPE=Debug -DCMAKE_C_COMPILER=clang \
  -DCMAKE_CXX_COMPILER=clang++ -DQZ_SANITIZE=address -DQZ_BUILD_FUZZERS=ON \
  -DQZ_BUILD_TOOLS=OFF -DQZ_BUILD_BENCH=OFF > build-fuzz.cmake.log
cmake --build build-fuzz -j "$(nproc)" --target $(sed -n 's/^qz_add_fuzzer(\([a-z_0-9]*\) .*/\1/p' fuzz/CMakeLists.txt)
for target in $(sed -n 's/^qz_add_fuzzer(\([a-z_0-9]*\) .*/\1/p' fuzz/CMakeLists.txt); do
  corpus="fuzz/corpus/${target#qz_fuzz_}"
  scratch="build-fuzz/corpus-${target#qz_fuzz_}"
  mkdir -p "$scratch"
  echo "=== fuzz $target for ${SECONDS_PER_TARGET}s"
  (cd build-fuzz && "./fuzz/$target" -max_total_time="$SECONDS_PER_TARGET" -print_final_stats=0 \
     "../$scratch" "../$corpus" 2>&1 | tail -n 3)
  test "${PIPESTATUS[0]}" -eq 0
done
