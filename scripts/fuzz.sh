#!/usr/bin/env bash
# Builds the libFuzzer targets (tests/fuzz, LORVEX_FUZZ=ON, clang) in build/fuzz and runs each for
# a short while (FUZZ_SECONDS, default 30) from its checked-in corpus. Skipped when clang is not
# installed. A crash or sanitizer report fails the run and leaves the input in build/fuzz/crashes.
set -euo pipefail
cd "$(dirname "$0")/.."

if ! command -v clang++ >/dev/null 2>&1; then
    echo "fuzz.sh: clang++ not found, skipping the fuzz run"
    exit 0
fi

seconds=${FUZZ_SECONDS:-30}
build=build/fuzz
launcher=()
if command -v ccache >/dev/null; then
    launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache -DCMAKE_C_COMPILER_LAUNCHER=ccache)
fi
CC=clang CXX=clang++ cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo "${launcher[@]}" \
    -DLORVEX_FUZZ=ON -DLORVEX_BUILD_TESTS=ON -DLORVEX_BUILD_TOOLS=ON -DLORVEX_WERROR=OFF >/dev/null

# Every fuzz target of tests/fuzz: one corpus folder per target.
targets=()
for dir in tests/fuzz/corpus/*/; do
    targets+=("$(basename "$dir")")
done
cmake --build "$build" -j "$(nproc)" --target "${targets[@]/#/fuzz_}"

mkdir -p "$build/crashes"
export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
for target in "${targets[@]}"; do
    echo "== fuzz_$target for ${seconds}s"
    scratch="$build/corpus/$target"
    mkdir -p "$scratch"
    # A hang (an input that takes over 10 s) and a memory blow-up (over 2 GB) are findings too.
    "$build/tests/fuzz/fuzz_$target" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 \
        -malloc_limit_mb=1024 -print_final_stats=1 \
        -artifact_prefix="$build/crashes/$target-" "$scratch" "tests/fuzz/corpus/$target" 2>&1 | tail -n 12
done
