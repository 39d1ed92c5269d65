#!/usr/bin/env bash
# `quillfort watch` in a real terminal (tmux, 80 x 24) on a private session bus
# (CTest runs it under dbus-run-session): a queued prompt appears with its
# ancestors, and 3 then b answers it as block always.
#   QuillfortWatchTest.sh AGENT TOOL
set -euo pipefail
agent=$1 tool=$2
for needed in tmux jq; do command -v "$needed" >/dev/null || { echo "SKIP: no $needed"; exit 77; }; done
[ -n "${DBUS_SESSION_BUS_ADDRESS:-}" ] || { echo "SKIP: no session bus (run under dbus-run-session)"; exit 77; }

home=$(mktemp -d)
socket="$home/tmux.sock"
pids=()
cleanup() {
    tmux -S "$socket" kill-server 2>/dev/null || true
    kill "${pids[@]}" 2>/dev/null || true
    wait 2>/dev/null || true
    rm -rf "$home"
}
trap cleanup EXIT
screen() { tmux -S "$socket" capture-pane -p -t watch; }
fail() { echo "FAIL: $*"; echo "--- screen"; screen || true; echo "--- agent log"; cat "$home/agent.log"; exit 1; }
waitForScreen() {  # up to 20 s for TEXT on the screen
    for _ in $(seq 200); do screen | grep -qF -- "$1" && return 0; sleep 0.1; done
    fail "timed out waiting for \"$1\" on the screen"
}

tmux -S "$socket" new-session -d -s watch -x 80 -y 24 \
    "env HOME='$home' DBUS_SESSION_BUS_ADDRESS='$DBUS_SESSION_BUS_ADDRESS' TERM=screen '$tool' watch"
waitForScreen "No Quillfort agent is running"

HOME=$home QUILLFORT_AGENT_DISABLE_LOOPBACK_LISTENER=1 "$agent" --headless 2>"$home/agent.log" &
pids+=($!)
waitForScreen "No active prompts"

# A flow of a shell started by this script: the ancestors come from /proc.
HOME=$home bash -c "exec '$tool' prompt --host watch.example.org --port 443 --pid \$\$ --no-loopback --timeout 30" \
    >"$home/answer.json" &
pids+=($!)
waitForScreen "watch.example.org:443"
screen | grep -E '^Ancestors .*bash' >/dev/null || fail "the ancestors are not shown"

tmux -S "$socket" send-keys -t watch 3
waitForScreen "Block Always"
tmux -S "$socket" send-keys -t watch b
for _ in $(seq 200); do jq -e . "$home/answer.json" >/dev/null 2>&1 && break; sleep 0.1; done
jq -e '.action == "drop" and .scope == "persistent"' "$home/answer.json" >/dev/null ||
    fail "not answered as block always: $(cat "$home/answer.json")"

tmux -S "$socket" send-keys -t watch q
for _ in $(seq 50); do tmux -S "$socket" has-session -t watch 2>/dev/null || break; sleep 0.1; done
! tmux -S "$socket" has-session -t watch 2>/dev/null || fail "q did not end watch"
echo PASS
