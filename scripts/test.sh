#!/usr/bin/env bash
# Sets up, builds and runs every test. Usage: scripts/test.sh [plain|address|thread|fuzz]
#   plain    all tests (the default)
#   address  all tests under AddressSanitizer and UndefinedBehaviorSanitizer
#   thread   the concurrency tests (log queue, dispatch, movie pumps) under ThreadSanitizer
#   fuzz     each fuzz target under libFuzzer for a few seconds on its checked-in corpus
set -euo pipefail
here=$(cd "$(dirname "$0")/.." && pwd)
kind=${1:-plain}
bash "$here/scripts/setup.sh"
bash "$here/scripts/build.sh" "$kind"
cd "$here/build/$kind"
export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}
export TSAN_OPTIONS=${TSAN_OPTIONS:-halt_on_error=1:second_deadlock_stack=1}
# Every test runs once: a test that fails on a slow or loaded machine is a test to fix.
case "$kind" in
  thread) ctest --output-on-failure -j2 -R 'Concurrency' ;;
  fuzz)   ctest --output-on-failure -L fuzz ;;
  *)      ctest --output-on-failure -j2 ;;
esac
