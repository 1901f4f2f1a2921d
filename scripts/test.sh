#!/usr/bin/env bash
# Installs what is missing, builds everything with AddressSanitizer + UndefinedBehaviorSanitizer
# and warnings as errors, and runs every test through CTest. Usage: scripts/test.sh [ctest args]
set -euo pipefail
repo="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
"$repo/scripts/setup.sh"

build="$repo/build/asan"
jobs="${TAVLO_JOBS:-$(nproc)}"
cmake -S "$repo" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Debug -DTAVLO_SANITIZE=ON \
      -DTAVLO_WERROR=ON >/dev/null
ninja -C "$build" -j "$jobs"

export ASAN_OPTIONS="detect_leaks=1:abort_on_error=1:strict_string_checks=1"
export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1"
ctest --test-dir "$build" -j "$jobs" --output-on-failure "$@"

echo "== build and ctest: $SECONDS s"

# Each further check with the time it took, so that the whole stays within its budget (about
# 30 minutes on two cores).
for extra in "$repo"/scripts/test.d/*.sh; do
    [ -e "$extra" ] || continue
    echo "== $(basename "$extra")"
    started=$SECONDS
    "$extra"
    echo "== $(basename "$extra"): $((SECONDS - started)) s"
done
echo "== All tests passed in $SECONDS s"
