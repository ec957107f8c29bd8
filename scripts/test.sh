#!/usr/bin/env bash
# Builds and runs every test four ways: a normal build, a build on the
# portable socket path that iOS takes (-DQZ_PORTABLE_NET=ON: one sendmsg
# per datagram instead of Linux's sendmmsg and GSO), AddressSanitizer with
# UndefinedBehaviorSanitizer, and ThreadSanitizer; builds the libraries and
# their unit tests for 64- and 32-bit ARM and runs them under qemu-user;
# then runs each libFuzzer target briefly over its corpus. Installs what is
# missing first.
#
# Every stage runs even when an earlier one failed, so that one red run
# shows everything that is wrong; the script then fails at the end with the
# list of the stages that failed.
#
#   scripts/test.sh            all of it
#   QZ_TEST_CONFIGS="normal"   only some of the builds (normal portable asan tsan aarch64 armv7)
#   QZ_FUZZ_SECONDS=0          skip the fuzzers
set -uo pipefail
cd "$(dirname "$0")/.."

CONFIGS=${QZ_TEST_CONFIGS:-"normal portable asan tsan aarch64 armv7"}
QZ_TEST_CONFIGS="$CONFIGS" scripts/install_deps.sh || { echo "=== install_deps failed"; exit 1; }
FUZZ_SECONDS=${QZ_FUZZ_SECONDS:-15}
JOBS=$(nproc)
FAILED=()

configure_and_test() {
  local name=$1
  shift
  local dir="build-ci-$name"
  echo "=== $name: configure and build"
  cmake -S . -B "$dir" -G Ninja "$@" > "$dir.cmake.log" 2>&1 || { cat "$dir.cmake.log"; return 1; }
  cmake --build "$dir" -j "$JOBS" || return 1
  echo "=== $name: test"
  # shellcheck disable=SC2086 # CTEST_ARGS is a list of words
  (cd "$dir" && ctest --output-on-failure -j "$JOBS" --timeout 600 ${CTEST_ARGS:-})
}

# Runs one stage, timed; a failure is remembered and the next stage runs.
stage() {
  local name=$1
  shift
  local start=$SECONDS
  if "$@"; then
    echo "=== $name passed ($((SECONDS - start)) s)"
  else
    echo "=== $name FAILED ($((SECONDS - start)) s)"
    FAILED+=("$name")
  fi
}

for config in $CONFIGS; do
  case $config in
    normal)
      stage normal configure_and_test normal -DCMAKE_BUILD_TYPE=RelWithDebInfo
      ;;
    portable)
      # Only the tests in which the server sends UDP: the rest run the same
      # code on both paths (CTest label no_udp_fanout, tests/CMakeLists.txt).
      CTEST_ARGS="-LE no_udp_fanout" stage portable configure_and_test portable -DCMAKE_BUILD_TYPE=RelWithDebInfo -DQZ_PORTABLE_NET=ON
      ;;
    aarch64 | armv7)
      # The libraries and their tests, cross-built and run under qemu-user
      # (the loopback tests and the sinker's record round trip included).
      # The command-line publisher needs FFmpeg's libraries for the target,
      # so its end-to-end, soak and attack tests run on the build machine's
      # architecture only.
      triple=$([ "$config" = aarch64 ] && echo aarch64-linux-gnu || echo arm-linux-gnueabihf)
      stage "$config" configure_and_test "$config" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
        -DCMAKE_TOOLCHAIN_FILE="cmake/toolchains/$triple.cmake" -DQZ_BUILD_TOOLS=OFF -DQZ_BUILD_BENCH=OFF
      ;;
    asan)
      stage asan env ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 \
        UBSAN_OPTIONS=print_stacktrace=1 LSAN_OPTIONS="suppressions=$PWD/scripts/lsan.supp" \
        bash -c "$(declare -f configure_and_test); JOBS=$JOBS configure_and_test asan \
        -DCMAKE_BUILD_TYPE=Debug -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
        -DQZ_SANITIZE=address -DQZ_BUILD_BENCH=OFF"
      ;;
    tsan)
      # setarch -R: clang 14's TSan cannot map its shadow memory with the
      # address-space randomisation of newer kernels.
      stage tsan env TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1 suppressions=$PWD/scripts/tsan.supp" \
        setarch "$(uname -m)" -R bash -c "$(declare -f configure_and_test); JOBS=$JOBS configure_and_test tsan \
        -DCMAKE_BUILD_TYPE=Debug -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
        -DQZ_SANITIZE=thread -DQZ_BUILD_BENCH=OFF"
      ;;
    *)
      echo "unknown configuration $config" >&2
      FAILED+=("$config (unknown configuration)")
      ;;
  esac
done

if [ "$FUZZ_SECONDS" -gt 0 ]; then
  stage fuzz scripts/fuzz.sh "$FUZZ_SECONDS"
fi

if [ "${#FAILED[@]}" -gt 0 ]; then
  echo "=== FAILED: ${FAILED[*]}"
  exit 1
fi
echo "=== all tests passed"
