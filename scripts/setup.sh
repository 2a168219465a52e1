#!/usr/bin/env bash
# Installs every Debian package the project needs to build, test and benchmark.
# Safe to run again: it only calls apt-get when something is missing.
set -euo pipefail
packages=(
  build-essential cmake ninja-build pkg-config clang-format
  libplist-dev
  libavformat-dev libavcodec-dev libavutil-dev libswresample-dev
  libssl-dev libarchive-dev
  googletest libgtest-dev libgmock-dev libbenchmark-dev libspdlog-dev
  ffmpeg mediainfo
  zip unzip
  clang libclang-rt-14-dev
  python3 sudo attr
  dosfstools testdisk
  xvfb zenity xdotool tmux
)
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if ((${#missing[@]})); then
  SUDO=""
  [ "$(id -u)" -eq 0 ] || SUDO="sudo"
  echo "setup: installing ${missing[*]}"
  $SUDO apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi
