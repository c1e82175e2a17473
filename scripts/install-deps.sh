#!/usr/bin/env bash
# Installs the Debian packages Lorvex needs. Usage: install-deps.sh build|test|bench
# Skips apt-get entirely when every package is already installed.
set -euo pipefail

kind=${1:-build}
packages=(build-essential cmake ninja-build pkg-config
          libasound2-dev libfluidsynth-dev timgm6mb-soundfont
          libgstreamer1.0-dev libgstreamer-plugins-base1.0-dev gstreamer1.0-tools
          gstreamer1.0-plugins-base gstreamer1.0-plugins-good gstreamer1.0-plugins-bad
          gstreamer1.0-plugins-ugly gstreamer1.0-libav
          zlib1g-dev espeak-ng sox abcmidi ffmpeg)
case "$kind" in
    build) ;;
    # llvm brings llvm-symbolizer, so that sanitizer reports name their frames.
    test) packages+=(libgtest-dev libgmock-dev clang libclang-rt-14-dev llvm python3-numpy fluidsynth) ;;
    bench) packages+=(libgtest-dev libgmock-dev libbenchmark-dev libopenal-dev) ;;
    *) echo "usage: $0 build|test|bench" >&2; exit 2 ;;
esac

missing=()
for p in "${packages[@]}"; do
    if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
        missing+=("$p")
    fi
done
if [ ${#missing[@]} -eq 0 ]; then
    exit 0
fi
echo "Installing: ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
apt-get update -qq
apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
