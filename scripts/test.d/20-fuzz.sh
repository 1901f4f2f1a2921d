#!/usr/bin/env bash
# clang with libstdc++: every target (libraries, tests, examples, benchmarks and the libFuzzer
# targets) builds warning-free with -Werror, in the one configuration that clang has to build
# anyway for the fuzzers (instrumented, with AddressSanitizer). The suites run on the GCC build
# and on libc++ (70-libcxx.sh); here only the fuzz targets run, a short libFuzzer run over every
# parser of untrusted input.
set -euo pipefail
repo="$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)"
build="$repo/build/fuzz"
seconds="${TAVLO_FUZZ_SECONDS:-15}"
CXX=clang++ cmake -S "$repo" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE= -DTAVLO_WERROR=ON \
    -DTAVLO_FUZZ=ON -DTAVLO_TESTS=ON -DTAVLO_EXAMPLES=ON -DTAVLO_BENCH=ON >/dev/null
if ! built="$(ninja -C "$build" -j "${TAVLO_JOBS:-$(nproc)}" 2>&1)"; then
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
