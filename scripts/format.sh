#!/usr/bin/env bash
# Formats the C++ sources with .clang-format. Usage: scripts/format.sh [--check]
#   (no option)  rewrites every file that is not formatted
#   --check      changes nothing; lists the files that are not formatted and fails if any
set -euo pipefail
here=$(cd "$(dirname "$0")/.." && pwd)
cd "$here"
mapfile -t files < <(git ls-files -- 'src/*.cpp' 'src/*.h' 'tests/*.cpp' 'tests/*.h' 'tools/*.cpp' 'tools/*.h' \
  'bench/*.cpp' 'bench/*.h')
if [ "${1:-}" = --check ]; then
  bad=0
  for f in "${files[@]}"; do
    if ! clang-format --style=file "$f" | cmp -s - "$f"; then
      echo "not formatted: $f"
      bad=1
    fi
  done
  exit "$bad"
fi
clang-format --style=file -i "${files[@]}"
