#!/usr/bin/env bash
# `quillfort watch` in a real terminal (tmux, 80 x 24) on a private session bus
# (CTest runs it under dbus-run-session): a queued prompt appears with its
# ancestors, and 3 then b answers it as block always. A second watch without
# the bus works from the status file: it answers the second of two prompts,
# then the one left, which the selection falls back to.
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
screen() { tmux -S "$socket" capture-pane -p -t "${1:-watch}"; }
fail() { echo "FAIL: $*"; echo "--- screen"; screen || true; echo "--- agent log"; cat "$home/agent.log"; exit 1; }
waitForScreen() {  # up to 20 s for TEXT on the screen of SESSION (default watch)
    for _ in $(seq 200); do screen "${2:-watch}" | grep -qF -- "$1" && return 0; sleep 0.1; done
    fail "timed out waiting for \"$1\" on the ${2:-watch} screen"
}
answered() {  # up to 20 s for the tool's answer in FILE to be a drop
    for _ in $(seq 200); do jq -e . "$1" >/dev/null 2>&1 && break; sleep 0.1; done
    jq -e '.action == "drop"' "$1" >/dev/null || fail "$1 was not answered as a block: $(cat "$1")"
}

tmux -S "$socket" new-session -d -s watch -x 80 -y 24 \
    "env HOME='$home' DBUS_SESSION_BUS_ADDRESS='$DBUS_SESSION_BUS_ADDRESS' TERM=screen '$tool' watch"
waitForScreen "No Quillfort agent is running"
# No bus at all for this one: not the private one, not a user bus in a runtime directory.
tmux -S "$socket" new-session -d -s plain -x 80 -y 24 \
    "env -u DBUS_SESSION_BUS_ADDRESS XDG_RUNTIME_DIR='$home/nobus' HOME='$home' TERM=screen '$tool' watch"
waitForScreen "Quillfort watch  ·  no agent" plain

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
answered "$home/answer.json"
jq -e '.scope == "persistent"' "$home/answer.json" >/dev/null || fail "not answered as always: $(cat "$home/answer.json")"

for name in one two; do
    HOME=$home "$tool" prompt --host $name.example.org --port 443 --no-loopback --timeout 30 >"$home/$name.json" &
    pids+=($!)
    waitForScreen "$name.example.org:443" plain
done
waitForScreen "2 queued (status file)" plain
tmux -S "$socket" send-keys -t plain j b
answered "$home/two.json"
[ ! -s "$home/one.json" ] || fail "one.example.org was answered with two.example.org"
waitForScreen "1 queued (status file)" plain
tmux -S "$socket" send-keys -t plain b
answered "$home/one.json"

tmux -S "$socket" send-keys -t watch q
for _ in $(seq 50); do tmux -S "$socket" has-session -t watch 2>/dev/null || break; sleep 0.1; done
! tmux -S "$socket" has-session -t watch 2>/dev/null || fail "q did not end watch"
echo PASS
