#!/usr/bin/env bash
# Configures and builds one tree. Usage: scripts/build.sh [plain|address|thread]
set -euo pipefail
here=$(cd "$(dirname "$0")/.." && pwd)
kind=${1:-plain}
dir="$here/build/$kind"
san=""
[ "$kind" = plain ] || san="$kind"
cmake -S "$here" -B "$dir" -G Ninja -DCORVINA_SANITIZE="$san" >/dev/null
cmake --build "$dir" -j"$(nproc)"
