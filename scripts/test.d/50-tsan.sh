#!/usr/bin/env bash
# The concurrency stress suite (fifty chatrooms, eight application threads, events and dropped
# connections) and the awaited operations (strands, cancellation, event streams) under
# ThreadSanitizer, in a build of its own. Any report fails the run.
set -euo pipefail
repo="$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)"
build="$repo/build/tsan"
cmake -S "$repo" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Debug -DTAVLO_TSAN=ON \
      -DTAVLO_EXAMPLES=OFF >/dev/null
ninja -C "$build" -j "${TAVLO_JOBS:-$(nproc)}" TVKChatManagerStress_test TVKLog_test TVKAsync_test \
      >/dev/null
export TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1 suppressions=$repo/tests/tsan-suppressions.txt"
# Three rounds, as interleavings differ from one run to the next; a hang ends the run, not CI.
timeout 600 "$build/tests/TVKChatManagerStress_test" --gtest_brief=1 --gtest_repeat=3
# The log's sink replaced while threads write through it.
"$build/tests/TVKLog_test" --gtest_brief=1 --gtest_filter='TVKLogTest.*'
# Completions on the application's executors, cancelled operations and event streams.
timeout 600 "$build/tests/TVKAsync_test" --gtest_brief=1
