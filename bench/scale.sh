#!/usr/bin/env bash
# Players at scale: N clips of one kind played at once by lorvex-play into the null output; the
# peak threads, descriptors and memory of the process, its CPU time, and what each player costs.
#
# usage: bench/scale.sh [LORVEX_PLAY] [KIND:N ...]   (default: wave:10 wave:100 wave:1000
#        midi:10 midi:100 mpeg:10 mpeg:100; a Release build of lorvex-play measures best)
# Prints one Markdown table row per run. Clips are made with sox, abc2midi and ffmpeg.
set -euo pipefail
play=${1:-build/release/tools/lorvex-play/lorvex-play}
shift || true
runs=("$@")
[ ${#runs[@]} -gt 0 ] || runs=(wave:10 wave:100 wave:1000 midi:10 midi:100 mpeg:10 mpeg:100)
play=$(realpath "$play")
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT
cd "$dir"
sox -q -n -r 22050 -c 1 -b 16 clip.wav synth 3 sine 440 vol 0.01
printf 'X:1\nL:1/4\nQ:1/4=120\nK:C\nCDEF|GABc|\n' > t.abc && abc2midi t.abc -o clip.mid >/dev/null
ffmpeg -v error -y -f lavfi -i testsrc=s=160x120:r=25:d=3 -f lavfi -i sine=frequency=440:duration=3 \
    -c:v mpeg1video -c:a mp2 -f mpeg clip.mpg
tick=$(getconf CLK_TCK)

echo "| kind | players | exit | failed | peak threads | peak descriptors | peak RSS MB | CPU s | threads/player | descriptors/player | RSS MB/player | CPU ms/player |"
echo "|---|---|---|---|---|---|---|---|---|---|---|---|"
for run in "${runs[@]}"; do
    kind=${run%%:*}
    n=${run##*:}
    case $kind in wave) clip=clip.wav ;; midi) clip=clip.mid ;; mpeg) clip=clip.mpg ;; *) echo "unknown kind $kind" >&2; exit 2 ;; esac
    args=()
    for ((i = 0; i < n; ++i)); do args+=(--start 1 "$clip"); done
    "$play" -o null -t 8 -c 1024 "${args[@]}" > out.txt 2> err.txt &
    pid=$!
    threads=0; fds=0; rss=0; cpu=0
    while kill -0 "$pid" 2>/dev/null; do
        if [ -r "/proc/$pid/status" ]; then
            t=$(awk '/^Threads:/ {print $2}' "/proc/$pid/status" 2>/dev/null || echo 0)
            r=$(awk '/^VmRSS:/ {print $2}' "/proc/$pid/status" 2>/dev/null || echo 0)
            f=$(ls "/proc/$pid/fd" 2>/dev/null | wc -l)
            c=$(awk '{print $14 + $15}' "/proc/$pid/stat" 2>/dev/null || echo 0)
            [ "${t:-0}" -gt "$threads" ] && threads=$t
            [ "${r:-0}" -gt "$rss" ] && rss=$r
            [ "${f:-0}" -gt "$fds" ] && fds=$f
            [ "${c:-0}" -gt "$cpu" ] && cpu=$c
        fi
        sleep 0.2
    done
    status=0
    wait "$pid" || status=$?
    failed=$(sed -n 's/.*clips*, \([0-9]*\) failed.*/\1/p' out.txt | tail -n 1)
    awk -v k="$kind" -v n="$n" -v s="$status" -v f="${failed:-?}" -v t="$threads" -v d="$fds" -v r="$rss" \
        -v c="$cpu" -v hz="$tick" 'BEGIN {
        printf "| %s | %d | %d | %s | %d | %d | %.0f | %.1f | %.2f | %.2f | %.2f | %.1f |\n", k, n, s, f, t, d,
               r / 1024, c / hz, t / n, d / n, r / 1024 / n, 1000 * c / hz / n }'
done
