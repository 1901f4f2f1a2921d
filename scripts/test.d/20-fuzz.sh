#!/usr/bin/env bash
# A short libFuzzer run over every parser of untrusted input (built with clang).
set -euo pipefail
repo="$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)"
build="$repo/build/fuzz"
seconds="${TAVLO_FUZZ_SECONDS:-15}"
CXX=clang++ cmake -S "$repo" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE= \
    -DTAVLO_FUZZ=ON -DTAVLO_TESTS=OFF -DTAVLO_EXAMPLES=OFF >/dev/null
targets=$(cd "$repo/fuzz" && ls fuzz_*.cpp | sed "s/\.cpp$//")
ninja -C "$build" -j "${TAVLO_JOBS:-$(nproc)}" $targets >/dev/null
for target in "$build"/fuzz/fuzz_*; do
    [ -x "$target" ] || continue
    corpus="$build/corpus/$(basename "$target")"
    mkdir -p "$corpus"
    echo "-- $(basename "$target") for ${seconds}s"
    "$target" -max_total_time="$seconds" -max_len=4096 -print_final_stats=0 "$corpus" 2>&1 \
        | grep -E 'Done|ERROR|SUMMARY' || true
    test "${PIPESTATUS[0]}" -eq 0
done
