#!/usr/bin/env bash
# The main job: builds Lorvex and lorvex-play, makes a short demo clip with espeak-ng and plays it
# the way a browser would into a WAV file, printing the player's summary; then plays the example
# VRML world the same way.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh build

cmake -S . -B build/release -G Ninja -DCMAKE_BUILD_TYPE=Release -DLORVEX_BUILD_TESTS=OFF >/dev/null
cmake --build build/release -j "$(nproc)"

mkdir -p out
espeak-ng -w out/demo.wav "Lorvex plays this sentence the way a three D browser plays a sound clip."
./build/release/tools/lorvex-play/lorvex-play --version
./build/release/tools/lorvex-play/lorvex-play --verbose --output wav:out/demo-played.wav --start 0.5 out/demo.wav
echo "The played sound is in out/demo-played.wav"

# A world: the example hall with its sounds placed around the listener and a film on the wall.
examples/world/make-media.sh
./build/release/tools/lorvex-play/lorvex-play --output wav:out/world-played.wav --time 8 \
    --at Bell=1 --at Voice=2 --frames out/world-frames examples/world/hall.wrl
echo "The world as heard is in out/world-played.wav, its film's frames in out/world-frames"
