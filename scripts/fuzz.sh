#!/usr/bin/env bash
# Builds the libFuzzer targets with clang (ASan + UBSan) and runs each for
# the given number of seconds (default 15) over its corpus in fuzz/corpus/.
# New inputs go to a scratch folder, so the repository's corpus stays as is.
# Every target runs even when an earlier one failed; a failing target's
# report is printed, its crashing input is left in build-fuzz/, and the
# script fails at the end with the list of the targets that failed.
set -uo pipefail
cd "$(dirname "$0")/.."
SECONDS_PER_TARGET=${1:-15}
TARGETS=$(sed -n 's/^qz_add_fuzzer(\([a-z_0-9]*\) .*/\1/p' fuzz/CMakeLists.txt)
cmake -S . -B build-fuzz -G Ninja -DCMAKE_BUILD_TYPE=Debug -DCMAKE_C_COMPILER=clang \
  -DCMAKE_CXX_COMPILER=clang++ -DQZ_SANITIZE=address -DQZ_BUILD_FUZZERS=ON \
  -DQZ_BUILD_TOOLS=OFF -DQZ_BUILD_BENCH=OFF > build-fuzz.cmake.log 2>&1 ||
  { cat build-fuzz.cmake.log; exit 1; }
# shellcheck disable=SC2086  # one word per target
cmake --build build-fuzz -j "$(nproc)" --target $TARGETS || exit 1

failed=()
for target in $TARGETS; do
  corpus="fuzz/corpus/${target#qz_fuzz_}"
  scratch="build-fuzz/corpus-${target#qz_fuzz_}"
  log="build-fuzz/$target.log"
  mkdir -p "$scratch"
  echo "=== fuzz $target for ${SECONDS_PER_TARGET}s"
  (cd build-fuzz && "./fuzz/$target" -max_total_time="$SECONDS_PER_TARGET" \
     -print_final_stats=1 "../$scratch" "../$corpus") > "$log" 2>&1
  status=$?
  # The last progress line says how far it got: inputs run, coverage, speed.
  grep -E '^#[0-9]+' "$log" | tail -n 1
  if [ "$status" -ne 0 ]; then
    echo "--- $target exited with $status; the end of its output:"
    tail -n 80 "$log"
    failed+=("$target")
  fi
done

if [ "${#failed[@]}" -gt 0 ]; then
  echo "=== fuzz targets that failed: ${failed[*]}"
  exit 1
fi
