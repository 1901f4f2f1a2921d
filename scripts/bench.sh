#!/usr/bin/env bash
# Release build of the benchmarks; runs each and prints its table.
set -euo pipefail
repo="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
"$repo/scripts/setup.sh"
build="$repo/build/bench"
cmake -S "$repo" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DTAVLO_BENCH=ON \
      -DTAVLO_TESTS=OFF -DTAVLO_EXAMPLES=OFF >/dev/null
ninja -C "$build" -j "${TAVLO_JOBS:-$(nproc)}"
for program in "$build"/bench/*; do
    [ -x "$program" ] && [ -f "$program" ] || continue
    echo "== $(basename "$program")"
    "$program" "$@"
done
