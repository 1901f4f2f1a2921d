# Sourced by the test scripts that run programs against a fresh emulator (scripts/test.d/):
#   start_emulator DIR   starts `node emulator/server.js` on a free loopback port, its output in
#                        DIR/emulator.out, and sets emulator_url once it listens (30 s at most);
#   stop_emulator        ends it, if it runs; call it from the script's EXIT trap.
emulator_pid=""
emulator_url=""

start_emulator() {
    local repo
    repo="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
    node "$repo/emulator/server.js" --port 0 --stdin-watch off >"$1/emulator.out" &
    emulator_pid=$!
    for _ in $(seq 300); do
        grep -q '"url"' "$1/emulator.out" && break
        kill -0 "$emulator_pid" 2>/dev/null || break
        sleep 0.1
    done
    emulator_url="$(sed -n 's/.*"url":"\([^"]*\)".*/\1/p' "$1/emulator.out")"
    [ -n "$emulator_url" ] || { echo "the emulator did not start:"; cat "$1/emulator.out"; return 1; }
}

stop_emulator() {
    [ -n "$emulator_pid" ] || return 0
    kill "$emulator_pid" 2>/dev/null || true
    wait "$emulator_pid" 2>/dev/null || true
    emulator_pid=""
}
