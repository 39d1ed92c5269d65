#!/usr/bin/env bash
# The desktop agent under Xvfb, driven as a user would: prompts sent over
# loopback with the quillfort tool, answered with the keyboard through xdotool.
# Exits 77 (skipped) when Xvfb or xdotool is missing.
#   agent_window_end_to_end.sh <quillfort-agent> <quillfort>
set -uo pipefail
agent=$1
tool=$2
for program in Xvfb xdotool; do
  command -v "$program" >/dev/null || { echo "skipped: $program is not installed"; exit 77; }
done

work=$(mktemp -d)
pids=()
cleanup() {
  for pid in "${pids[@]}"; do kill "$pid" 2>/dev/null; done
  wait 2>/dev/null
  rm -rf "$work"
}
trap cleanup EXIT
fail() { echo "FAIL: $*"; echo "--- agent log"; tail -n 40 "$work/agent.log"; exit 1; }

# Xvfb picks a free display and the agent a free port, and each says which:
# numbers derived from the pid collided with leftovers of other runs.
export HOME=$work/home
mkdir -p "$HOME"
Xvfb -displayfd 3 -screen 0 1280x1024x24 -nolisten tcp 3>"$work/display" >"$work/xvfb.log" 2>&1 &
pids+=($!)
for _ in $(seq 100); do [ -s "$work/display" ] && break; sleep 0.05; done
[ -s "$work/display" ] || fail "Xvfb did not start ($(cat "$work/xvfb.log"))"
export DISPLAY=:$(head -n 1 "$work/display")

# start_agent <log> <arguments...>: starts the agent on a free port, sets $port.
start_agent() {
  local log=$1; shift
  "$agent" "$@" --loopback-port 0 >"$log" 2>&1 &
  agent_pid=$!
  pids+=($agent_pid)
  for _ in $(seq 200); do grep -q 'Listening for loopback prompt requests' "$log" && break; sleep 0.05; done
  port=$(sed -n 's/.*Listening for loopback prompt requests on 127\.0\.0\.1:\([0-9]*\).*/\1/p' "$log" | head -n 1)
  [ -n "$port" ] || fail "the agent named no loopback port"
}
start_agent "$work/agent.log"

# Waits until the decision window is mapped; prints nothing, fails after 10 s.
wait_for_window() {
  for _ in $(seq 200); do
    xdotool search --onlyvisible --name '^Quillfort Prompt$' >/dev/null 2>&1 && return 0
    sleep 0.05
  done
  fail "the decision window did not come up ($(cat "$work"/*.err))"
}

# ask <name> <keys...>: sends one prompt and answers it with the keys, and
# leaves the tool's answer in $work/<name>.json. The keys wait out the input
# guard, which starts before the window is mapped (its refusal of early keys
# is the widget tests' business: here it could only be judged by a clock).
ask() {
  local name=$1 client; shift
  "$tool" prompt --host "$name.example.com" --port 443 --home "$HOME" --loopback "127.0.0.1:$port" \
    --timeout 20 >"$work/$name.json" 2>"$work/$name.err" &
  client=$!
  wait_for_window
  sleep 0.8
  for key in "$@"; do xdotool key "$key"; sleep 0.15; done
  wait "$client" || fail "$name: the tool got no answer ($(cat "$work/$name.err"))"
}

expect() {
  local name=$1 action=$2 scope=$3
  grep -q "\"action\" *: *\"$action\"" "$work/$name.json" && grep -q "\"scope\" *: *\"$scope\"" "$work/$name.json" ||
    fail "$name: expected $action/$scope, got $(cat "$work/$name.json")"
  echo "ok: $name answered $action $scope"
}

ask allow Return;          expect allow allow temporary
ask cancel Escape;         expect cancel drop temporary
ask block 3 alt+b;         expect block drop persistent
kill -TERM "$agent_pid"
wait "$agent_pid" || fail "SIGTERM ended the agent with status $?"

# With --headless the display is ignored: no Qt platform plugin is loaded.
start_agent "$work/headless.log" --headless
grep -q 'platforms/libq' "/proc/$agent_pid/maps" && fail "the headless agent loaded a Qt platform plugin"
kill -TERM "$agent_pid"
wait "$agent_pid" || fail "SIGTERM ended the headless agent with status $?"
echo "ok: headless with a display loads no platform plugin"
