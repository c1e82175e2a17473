#!/usr/bin/env bash
# Makes the media of the example world (hall.wrl) beside it, with sox, espeak-ng, abc2midi and
# ffmpeg (scripts/install-deps.sh installs them). Nothing here is checked in but the world itself.
set -euo pipefail
cd "$(dirname "$0")"
sox -q -n -r 22050 -c 1 -b 16 hum.wav synth 4 sine 110 sine 165 gain -6 fade 0.05 4 0.05
sox -q -n -r 44100 -c 1 -b 16 bell.wav synth 1.5 pluck 880 fade 0 1.5 1.2
espeak-ng -w voice.wav "Welcome to the hall. The bell is on your left, and I am on your right."
cat > tune.abc <<'ABC'
X:1
T:Hall tune
M:4/4
L:1/8
Q:1/4=132
K:G
GABc dedB|cBAG A2D2|GABc dedB|cAFA G4|
ABC
abc2midi tune.abc -o tune.mid >/dev/null
rm -f tune.abc
ffmpeg -loglevel error -y -f lavfi -i testsrc=size=160x120:rate=25:duration=4 \
    -f lavfi -i sine=frequency=660:duration=4 -c:v mpeg1video -c:a mp2 -f mpeg movie.mpg
echo "media for $(pwd)/hall.wrl made"
