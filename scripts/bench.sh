#!/usr/bin/env bash
# Release build of the benchmarks; prints the realtime table (bench/Realtime.cpp: the raw reader,
# SocketIOClient, the SDK end to end and the official Node client, one run, alternating rounds),
# then connect time, memory per chatroom and threads (bench/EndToEnd.cpp) and the archive query
# (bench/ArchiveQuery.cpp), a round trip awaited by callback, future and coroutine
# (bench/AsyncRoundTrip.cpp) and the connect time through tinyproxy against direct
# (bench/ProxyConnect.cpp). Arguments go to Realtime, e.g. scripts/bench.sh --rounds 3.
set -euo pipefail
repo="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
"$repo/scripts/setup.sh"

# The official Node client is a dependency of the benchmark only, pinned by its lock file.
node_dir="$repo/bench/node"
lock_stamp="$node_dir/node_modules/.lock-stamp"
if [ ! -f "$lock_stamp" ] || ! cmp -s "$node_dir/package-lock.json" "$lock_stamp"; then
    echo "== Installing the benchmark's npm packages"
    (cd "$node_dir" && npm ci --no-audit --no-fund --loglevel=error)
    cp "$node_dir/package-lock.json" "$lock_stamp"
fi

build="$repo/build/bench"
cmake -S "$repo" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DTAVLO_BENCH=ON \
      -DTAVLO_TESTS=OFF -DTAVLO_EXAMPLES=OFF >/dev/null
ninja -C "$build" -j "${TAVLO_JOBS:-$(nproc)}" Realtime EndToEnd ArchiveQuery AsyncRoundTrip \
    ProxyConnect >/dev/null
echo "== Realtime"
"$build/bench/Realtime" "$@"
echo
echo "== EndToEnd"
"$build/bench/EndToEnd"
echo
echo "== ArchiveQuery"
"$build/bench/ArchiveQuery"
echo
echo "== AsyncRoundTrip"
"$build/bench/AsyncRoundTrip"
echo
echo "== ProxyConnect"
"$build/bench/ProxyConnect"
