#!/usr/bin/env bash
# The scripted conversation of scripts/demo.sh, played by the AddressSanitizer build of
# tavlo-chat (build/asan, built by scripts/test.sh), so the demo cannot rot. The transcripts are
# printed only when something went wrong.
set -euo pipefail
repo="$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)"
build="${TAVLO_ASAN_BUILD:-$repo/build/asan}"
if ! built="$(ninja -C "$build" -j "${TAVLO_JOBS:-$(nproc)}" tavlo-chat 2>&1)"; then
    echo "$built"
    exit 1
fi
log="$(mktemp "${TMPDIR:-/tmp}/tavlo-demo.XXXXXX")"
trap 'rm -f "$log"' EXIT
if "$repo/examples/tavlo-chat/demo/run-conversation.sh" \
       "$build/examples/tavlo-chat/tavlo-chat" >"$log" 2>&1; then
    tail -1 "$log"
else
    cat "$log"
    exit 1
fi
