#!/usr/bin/env bash
# The main job: builds Lorvex and lorvex-play, makes a short demo clip and plays it into a WAV file.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh build

cmake -S . -B build/release -G Ninja -DCMAKE_BUILD_TYPE=Release -DLORVEX_BUILD_TESTS=OFF >/dev/null
cmake --build build/release -j "$(nproc)"

mkdir -p out
./build/release/tools/lorvex-play/lorvex-play --version
