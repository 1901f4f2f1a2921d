#!/usr/bin/env bash
# examples/tavlo-bot against a fresh emulator, driven through the emulator's control API as the
# other people in the chatroom: it must greet, tell the time, pin the message asked about,
# welcome a user who joins, and leave on SIGTERM.
set -euo pipefail
repo="$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)"
build="${TAVLO_ASAN_BUILD:-$repo/build/asan}"
if ! built="$(ninja -C "$build" -j "${TAVLO_JOBS:-$(nproc)}" tavlo-bot 2>&1)"; then
    echo "$built"
    exit 1
fi
scratch="$(mktemp -d "${TMPDIR:-/tmp}/tavlo-bot.XXXXXX")"
source "$repo/scripts/emulator.sh"
bot_pid=""
cleanup() {
    if [ -n "$bot_pid" ]; then
        kill "$bot_pid" 2>/dev/null || true
        wait "$bot_pid" 2>/dev/null || true
    fi
    stop_emulator
    rm -rf "$scratch"
}
trap cleanup EXIT

start_emulator "$scratch"
url="$emulator_url"

control() { curl -sf -X "$1" "$url/_control/$2" -H 'Content-Type: application/json' ${3:+-d "$3"}; }
say() { control POST chatrooms/lobby/messages "{\"messages\":[{\"text\":\"$1\",\"creatorLabel\":2}],\"announce\":true}" >/dev/null; }
# Waits up to 20 s for a message of the lobby containing the text.
expect() {
    for _ in $(seq 200); do
        control GET chatrooms/lobby/messages | grep -qF "$1" && return 0
        sleep 0.1
    done
    echo "the bot never wrote \"$1\"; its output:"
    cat "$scratch/bot.out"
    exit 1
}

"$build/examples/tavlo-bot/tavlo-bot" --url "$url" --member alice >"$scratch/bot.out" 2>&1 &
bot_pid=$!
expect "bot: hello!"
say '!time'
expect "bot: the time is $(date -u +%Y-%m-%d)"
say 'pin me please'
say '!pin'
expect 'bot: pinned \"pin me please\"'
control GET chatrooms/lobby | grep -qF '"pin me please"' || { echo "nothing pinned"; exit 1; }
control POST chatrooms/lobby/users '{"users":[{"name":"Dora","join":true}],"announce":true}' >/dev/null
expect "bot: welcome, Dora!"
kill -TERM "$bot_pid"
status=0
wait "$bot_pid" || status=$?
bot_pid=""
[ "$status" -eq 0 ] || { echo "tavlo-bot ended with status $status:"; cat "$scratch/bot.out"; exit 1; }
echo "-- tavlo-bot greeted, told the time, pinned, welcomed and left"
