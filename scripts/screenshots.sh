#!/usr/bin/env bash
# Pictures of the agent's windows for the README: starts the built agent under
# Xvfb with preview prompts and writes PNGs into docs/.
#   scripts/screenshots.sh            (after cmake --build --preset default)
set -euo pipefail
cd "$(dirname "$0")/.."
build=${QUILLFORT_BUILD_DIR:-build/default}
agent=$build/QuillfortAgent/quillfort-agent
tool=$build/tools/quillfort
for program in Xvfb xdotool import; do
  command -v "$program" >/dev/null || { echo "screenshots.sh: $program is missing (scripts/setup.sh installs it)" >&2; exit 1; }
done
[ -x "$agent" ] && [ -x "$agent-window" ] && [ -x "$tool" ] ||
  { echo "screenshots.sh: build the agent, its windows and the tool first" >&2; exit 1; }

work=$(mktemp -d)
pids=()
stop_all() { for pid in "${pids[@]}"; do kill "$pid" 2>/dev/null || true; done; wait 2>/dev/null || true; pids=(); }
trap 'stop_all; rm -rf "$work"' EXIT
mkdir -p docs
port=$((29000 + $$ % 500))

# start_display <number> <geometry>
start_display() {
  export DISPLAY=:$1
  Xvfb "$DISPLAY" -screen 0 "$2" -nolisten tcp >/dev/null 2>&1 &
  pids+=($!)
  for _ in $(seq 100); do [ -S "/tmp/.X11-unix/X$1" ] && return; sleep 0.05; done
  echo "screenshots.sh: Xvfb did not start" >&2; exit 1
}

# start_agent [environment assignments...]: a fresh home, the agent with three preview prompts.
start_agent() {
  export HOME=$work/home-$RANDOM
  mkdir -p "$HOME"
  env "$@" "$agent" --loopback-port "$port" --automation-preview-prompt --automation-preview-queue-count 3 \
    --automation-preview-host api.example.com --automation-preview-port 443 >"$work/agent.log" 2>&1 &
  pids+=($!)
}

window_id() {
  for _ in $(seq 200); do
    if id=$(xdotool search --onlyvisible --name "^$1\$" 2>/dev/null | head -n 1) && [ -n "$id" ]; then
      echo "$id"; return
    fi
    sleep 0.05
  done
  echo "screenshots.sh: no window named $1" >&2; cat "$work/agent.log" >&2; exit 1
}

# start_agent_with_rules [environment assignments...]: a fresh home holding the
# sample rules and flow events, the agent without prompts (its status window
# opens at start, as Xvfb has no tray).
start_agent_with_rules() {
  export HOME=$work/home-$RANDOM
  local shared="$HOME/Library/Group Containers/group.com.vessimo.Quillfort.shared"
  mkdir -p "$shared"
  cp scripts/screenshot-samples/RuleSnapshot.json scripts/screenshot-samples/FlowFilterMonitorSnapshot.json "$shared/"
  env "$@" "$agent" --loopback-port "$port" >"$work/agent.log" 2>&1 &
  pids+=($!)
}

key_in() {  # key_in <window name> <keys...>
  local id; id=$(window_id "$1"); shift
  xdotool windowfocus --sync "$id"
  xdotool key --window "$id" "$@"
  sleep 0.4
}

shoot() {  # shoot <window name> <file>
  local id; id=$(window_id "$1")
  sleep 1  # let the guard pass and the window settle
  import -window "$id" "docs/$2"
  echo "wrote docs/$2"
}

click_in() {  # click_in <window name> <x> <y>
  local id; id=$(window_id "$1")
  xdotool mousemove --window "$id" "$2" "$3" click 1
  sleep 0.3
}

# Light: collapsed, then both sections open; and the status window beside it.
start_display 71 2400x1200x24
start_agent
shoot "Quillfort Prompt" decision-light.png
click_in "Quillfort Prompt" 300 "${DETAILS_Y:-243}"
click_in "Quillfort Prompt" 300 "${SCOPE_Y:-391}"
shoot "Quillfort Prompt" decision-light-expanded.png
# The decision window opens in the middle of the screen: out of the status window's way.
xdotool windowmove "$(window_id "Quillfort Prompt")" 1650 0
xdotool windowmove "$(window_id "Quillfort Agent")" 0 0
shoot "Quillfort Agent" status-view.png
stop_all

# Dark.
start_display 72 2400x1200x24
start_agent QUILLFORT_AGENT_APPEARANCE=dark
shoot "Quillfort Prompt" decision-dark.png
stop_all

# Signer Changed: a lasting rule for one signer, then the same program with another.
start_display 73 2400x1200x24
export HOME=$work/home-signer
mkdir -p "$HOME"
"$agent" --loopback-port "$port" >"$work/agent.log" 2>&1 &
pids+=($!)
for _ in $(seq 200); do grep -q 'Listening for loopback prompt requests' "$work/agent.log" && break; sleep 0.05; done
"$tool" prompt --host api.example.com --port 443 --exe /usr/bin/curl --signing-id com.example.curl.v1 \
  --home "$HOME" --loopback "127.0.0.1:$port" --timeout 30 >/dev/null &
window_id "Quillfort Prompt" >/dev/null
sleep 0.8
xdotool key 3 Return
wait $! || true
"$tool" prompt --host api.example.com --port 443 --exe /usr/bin/curl --signing-id com.example.curl.v2 \
  --home "$HOME" --loopback "127.0.0.1:$port" --timeout 30 >/dev/null &
pids+=($!)
shoot "Quillfort Prompt" decision-signer-changed.png
stop_all

# Twice the scale.
start_display 74 2400x2000x24
start_agent QT_SCALE_FACTOR=2
shoot "Quillfort Prompt" decision-scale2.png
stop_all

# The status window's rules and network views: light, dark and at twice the
# scale; one rule chosen (its controls below the list) and an hour given to it.
rules_and_network() {  # rules_and_network <suffix> <click scale>
  window_id "Quillfort Agent" >/dev/null
  sleep 1
  key_in "Quillfort Agent" ctrl+2
  click_in "Quillfort Agent" $((300 * $2)) $((216 * $2))
  shoot "Quillfort Agent" "rules-$1.png"
  key_in "Quillfort Agent" ctrl+3
  click_in "Quillfort Agent" $((300 * $2)) $((170 * $2))
  shoot "Quillfort Agent" "network-$1.png"
}
start_display 75 2400x1200x24
start_agent_with_rules
rules_and_network light 1
stop_all
start_display 76 2400x1200x24
start_agent_with_rules QUILLFORT_AGENT_APPEARANCE=dark
rules_and_network dark 1
stop_all
start_display 77 2400x2000x24
start_agent_with_rules QT_SCALE_FACTOR=2
rules_and_network scale2 2
stop_all
