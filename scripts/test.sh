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
# Tests that drive a terminal or a virtual display through outside tools can miss a
# keystroke on a loaded machine; a test that fails twice in a row fails the run.
case "$kind" in
  thread) ctest --output-on-failure -j2 --repeat until-pass:2 -R 'Concurrency' ;;
  fuzz)   ctest --output-on-failure -L fuzz ;;
  *)      ctest --output-on-failure -j2 --repeat until-pass:2 ;;
esac
