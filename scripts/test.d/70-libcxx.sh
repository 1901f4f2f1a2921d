#!/usr/bin/env bash
# clang with libc++ (the standard library of macOS, iOS and the Android NDK): the libraries,
# tests and examples build warning-free with nothing but the compiler and -stdlib=libc++ given
# (the build notices libc++, compiles Boost.JSON into the SDK and GoogleTest from its sources),
# and the unit and integration suites pass. No sanitizer here: ASan+UBSan run on the GCC build.
set -euo pipefail
repo="$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)"
build="$repo/build/libcxx"
jobs="${TAVLO_JOBS:-$(nproc)}"

cmake -S "$repo" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE= -DCMAKE_CXX_COMPILER=clang++ \
      -DCMAKE_CXX_FLAGS=-stdlib=libc++ -DTAVLO_WERROR=ON >/dev/null
grep -q '^TAVLO_LIBCXX:INTERNAL=1' "$build/CMakeCache.txt" \
    || { echo "the build did not notice libc++"; exit 1; }
if ! built="$(ninja -C "$build" -j "$jobs" 2>&1)"; then
    echo "$built"
    exit 1
fi
# Every program must run on libc++ alone: a libstdc++ pulled in by a dependency would mean two
# standard libraries in one process.
for program in "$build"/tests/*_test "$build"/examples/tavlo-chat/tavlo-chat; do
    if ldd "$program" | grep -q 'libstdc++'; then
        echo "$program links libstdc++"; exit 1
    fi
done
ctest --test-dir "$build" -j "$jobs" -L 'unit|integration' --output-on-failure
