#!/usr/bin/env bash
# A short libFuzzer run over every parser of untrusted input (clang with libstdc++, instrumented
# with AddressSanitizer, -Werror). TAVLO_CLANG_EVERY_TARGET=1 builds every other target in the
# same configuration too (libraries, tests, examples, benchmarks): the clang/libstdc++ cell of
# the platform table, left out by default to keep the script's time (70-libcxx.sh already builds
# the libraries, tests and examples with clang).
set -euo pipefail
repo="$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)"
build="$repo/build/fuzz"
seconds="${TAVLO_FUZZ_SECONDS:-15}"
every="${TAVLO_CLANG_EVERY_TARGET:-0}"
[ "$every" = 1 ] && all=ON || all=OFF
CXX=clang++ cmake -S "$repo" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE= -DTAVLO_WERROR=ON \
    -DTAVLO_FUZZ=ON -DTAVLO_TESTS=$all -DTAVLO_EXAMPLES=$all -DTAVLO_BENCH=$all >/dev/null
targets=""
[ "$every" = 1 ] || targets=$(cd "$repo/fuzz" && ls fuzz_*.cpp | sed "s/\.cpp$//")
# shellcheck disable=SC2086 # one word per target
if ! built="$(ninja -C "$build" -j "${TAVLO_JOBS:-$(nproc)}" $targets 2>&1)"; then
    echo "$built"
    exit 1
fi
for target in "$build"/fuzz/fuzz_*; do
    [ -x "$target" ] || continue
    corpus="$build/corpus/$(basename "$target")"
    mkdir -p "$corpus"
    echo "-- $(basename "$target") for ${seconds}s"
    "$target" -max_total_time="$seconds" -max_len=4096 -print_final_stats=0 "$corpus" 2>&1 \
        | grep -E 'Done|ERROR|SUMMARY' || true
    test "${PIPESTATUS[0]}" -eq 0
done
