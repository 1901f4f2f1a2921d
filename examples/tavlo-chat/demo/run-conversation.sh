#!/usr/bin/env bash
# Plays a scripted conversation between tavlo-chat clients against a fresh emulator on a free
# port, prints every transcript, and exits 0 only when every step ended as the script expects
# and every client left cleanly. Used by scripts/demo.sh and scripts/test.d/40-demo.sh.
#
# Usage: run-conversation.sh TAVLO_CHAT_BINARY [CONVERSATION_FILE]
# Environment: TAVLO_STEP_TIMEOUT (seconds a step may take, default 30), TAVLO_KEEP_LOGS=1 keeps
# the working directory.
set -euo pipefail
here="$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)"
repo="$(cd "$here/../../.." && pwd)"
binary="${1:?usage: run-conversation.sh TAVLO_CHAT_BINARY [CONVERSATION_FILE]}"
conversation="${2:-$here/conversation.txt}"
step_timeout="${TAVLO_STEP_TIMEOUT:-30}"

work="$(mktemp -d "${TMPDIR:-/tmp}/tavlo-conversation.XXXXXX")"
emulator_pid=""
declare -A client_pid client_fd client_options expected_completions
clients=()

# True while process $1 runs (a child that exited but was not yet waited for does not count).
alive() {
    local stat
    stat="$(cat "/proc/$1/stat" 2>/dev/null)" || return 1
    [[ "$stat" != *") Z "* ]]
}

close_input() {
    local fd="${client_fd[$1]:-}"
    [ -n "$fd" ] && exec {fd}>&-
    client_fd[$1]=""
}

# shellcheck disable=SC2317  # called by the trap
cleanup() {
    for name in "${clients[@]}"; do
        close_input "$name" 2>/dev/null || true
        if [ -n "${client_pid[$name]:-}" ] && alive "${client_pid[$name]}"; then
            kill "${client_pid[$name]}" 2>/dev/null || true
        fi
    done
    if [ -n "$emulator_pid" ] && kill -0 "$emulator_pid" 2>/dev/null; then
        kill "$emulator_pid" 2>/dev/null || true
        wait "$emulator_pid" 2>/dev/null || true
    fi
    if [ "${TAVLO_KEEP_LOGS:-0}" = 1 ]; then
        echo "(logs kept in $work)"
    else
        rm -rf "$work"
    fi
}
trap cleanup EXIT

# Polls `condition` (a command) every 50 ms for up to $1 seconds.
within() {
    local seconds="$1"; shift
    local tries=$((seconds * 20))
    while ((tries-- > 0)); do
        "$@" && return 0
        sleep 0.05
    done
    return 1
}

start_emulator() {
    node "$repo/emulator/server.js" --port 0 --stdin-watch off \
        >"$work/emulator.out" 2>"$work/emulator.err" &
    emulator_pid=$!
    if ! within 30 grep -q '"url"' "$work/emulator.out"; then
        echo "the emulator did not start:" >&2
        cat "$work/emulator.err" >&2
        return 1
    fi
    url="$(sed -n 's/.*"url":"\([^"]*\)".*/\1/p' "$work/emulator.out" | head -1)"
    echo "== Emulator listening at $url"
}

completions() { grep -cE '^[0-9:.]+ (ok|error) ' "$work/$1.log" 2>/dev/null || true; }
last_completion() { grep -E '^[0-9:.]+ (ok|error) ' "$work/$1.log" | tail -1; }
caught_up() { [ "$(completions "$1")" -ge "${expected_completions[$1]}" ]; }
running() { alive "${client_pid[$1]}"; }

# Waits until client $1 has finished its latest command (or has exited).
await_client() {
    local name="$1" waited=0
    while ! caught_up "$name"; do
        running "$name" || { caught_up "$name"; return; }
        ((waited++ < step_timeout * 20)) || return 1
        sleep 0.05
    done
}

start_client() {
    local name="$1"; shift
    clients+=("$name")
    client_options[$name]="$*"
    mkfifo "$work/$name.in"
    "$binary" --url "$url" "$@" <"$work/$name.in" >"$work/$name.log" 2>&1 &
    client_pid[$name]=$!
    local fd
    exec {fd}>"$work/$name.in"
    client_fd[$name]=$fd
    expected_completions[$name]=1  # "ok connect ..."
    await_client "$name" || { echo "$name did not connect within ${step_timeout}s"; return 1; }
    last_completion "$name" | grep -q ' ok connect' || { echo "$name could not connect"; return 1; }
}

operator_call() {
    local method path body status=0
    read -r method path body <<<"$1"
    {
        echo "$(date +%H:%M:%S.%3N) > $method /_control/$path $body"
        curl -sS --fail-with-body -X "$method" -H 'Content-Type: application/json' \
            ${body:+--data "$body"} "$url/_control/$path" 2>&1 || status=$?
        echo
    } >>"$work/operator.log"
    return "$status"
}

# Sends one command to a client and checks how it ended.
client_step() {
    local name="$1" command="$2" expect="ok"
    if [[ "$command" == '!'* ]]; then
        expect="error"
        command="${command#!}"
        command="${command# }"
    fi
    [ -n "${client_fd[$name]:-}" ] || { echo "no client named $name"; return 1; }
    running "$name" || { echo "$name is no longer running"; return 1; }
    expected_completions[$name]=$((expected_completions[$name] + 1))
    printf '%s\n' "$command" >&"${client_fd[$name]}"
    if ! await_client "$name"; then
        echo "$name: \"$command\" did not finish within ${step_timeout}s"
        return 1
    fi
    local outcome
    outcome="$(last_completion "$name")"
    if [[ "$outcome" != *" $expect "* ]]; then
        echo "$name: \"$command\" should have ended in \"$expect\": $outcome"
        return 1
    fi
}

# Ends every client (end of input), waits for it and checks that it left cleanly.
finish_clients() {
    local status=0
    for name in "${clients[@]}"; do
        close_input "$name"
    done
    for name in "${clients[@]}"; do
        if ! within 15 eval "! alive ${client_pid[$name]}"; then
            echo "$name did not exit after the end of its input"
            status=1
            continue
        fi
        local exit_status=0
        wait "${client_pid[$name]}" || exit_status=$?
        if [ "$exit_status" -ne 0 ]; then
            echo "$name exited with status $exit_status"
            status=1
        elif ! grep -q '\* disconnected from' "$work/$name.log"; then
            echo "$name exited without leaving the chatroom"
            status=1
        fi
    done
    return $status
}

play() {
    local line number=0 steps=0 speaker command
    while IFS= read -r line || [ -n "$line" ]; do
        number=$((number + 1))
        [[ "$line" =~ ^[[:space:]]*(#|$) ]] && continue
        if [[ "$line" =~ ^client[[:space:]]+([A-Za-z0-9_-]+)[[:space:]]*(.*)$ ]]; then
            # shellcheck disable=SC2086
            start_client "${BASH_REMATCH[1]}" ${BASH_REMATCH[2]} || return 1
            continue
        fi
        if [[ ! "$line" =~ ^([A-Za-z0-9_-]+):[[:space:]]*(.*)$ ]]; then
            echo "$conversation:$number: cannot read \"$line\""
            return 1
        fi
        speaker="${BASH_REMATCH[1]}"
        command="${BASH_REMATCH[2]}"
        steps=$((steps + 1))
        if [ "$speaker" = operator ]; then
            operator_call "$command" || {
                echo "$conversation:$number: the operator call failed"
                return 1
            }
        else
            client_step "$speaker" "$command" || { echo "(at $conversation:$number)"; return 1; }
        fi
    done <"$conversation"
    echo "$steps steps"
}

print_transcripts() {
    for name in "${clients[@]}"; do
        echo
        echo "===== $name: tavlo-chat ${client_options[$name]} ====="
        cat "$work/$name.log"
    done
    if [ -s "$work/operator.log" ]; then
        echo
        echo "===== operator (emulator control API) ====="
        cat "$work/operator.log"
    fi
}

# The steps run in this shell (not a subshell): the clients' input pipes must stay open.
start_emulator
result=0
play >"$work/play.report" || result=1
finish_clients >"$work/finish.report" || result=1
print_transcripts
echo
if [ "$result" -eq 0 ]; then
    echo "== Conversation complete: $(cat "$work/play.report") as expected, every client left cleanly"
else
    echo "== Conversation FAILED"
    cat "$work/play.report" "$work/finish.report"
fi
exit "$result"
