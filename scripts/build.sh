#!/usr/bin/env bash
# Configures and builds one tree. Usage: scripts/build.sh [plain|address|thread|fuzz]
set -euo pipefail
here=$(cd "$(dirname "$0")/.." && pwd)
kind=${1:-plain}
dir="$here/build/$kind"
san=""
extra=()
targets=()
case "$kind" in
  plain) ;;
  # The fuzz targets alone, built by clang with libFuzzer.
  fuzz) extra=(-DCORVINA_FUZZ=ON -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++)
        targets=(--target fuzzers) ;;
  *) san="$kind" ;;
esac
# ccache, when it is installed, shares compiled objects between checkouts of the tree.
launcher=()
if command -v ccache >/dev/null; then
  export CCACHE_BASEDIR="$here"
  launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache -DCMAKE_C_COMPILER_LAUNCHER=ccache)
fi
# Warnings are errors in CI (CI=true, as CI services set it, or CORVINA_WERROR=ON).
werror=OFF
if [ "${CI:-}" = true ] || [ "${CORVINA_WERROR:-}" = ON ]; then werror=ON; fi
cmake -S "$here" -B "$dir" -G Ninja -DCORVINA_SANITIZE="$san" -DCORVINA_WERROR="$werror" "${extra[@]}" \
  "${launcher[@]}" >/dev/null
cmake --build "$dir" -j"$(nproc)" "${targets[@]}"
