#!/usr/bin/env bash
# The desktop agent's rules as a user meets them, under Xvfb on a private
# session bus (CTest runs it under dbus-run-session): the session rule an
# earlier run left goes at start; the tool switches a rule off, gives another
# an end that the agent keeps, and brings the status window forward, all
# through the running agent; with the agent gone the tool edits the file itself.
# Exits 77 (skipped) when Xvfb, xdotool, jq or a session bus is missing.
#   agent_rules_end_to_end.sh <quillfort-agent> <quillfort>
set -uo pipefail
agent=$1 tool=$2
for program in Xvfb xdotool jq busctl; do
  command -v "$program" >/dev/null || { echo "skipped: $program is not installed"; exit 77; }
done
[ -n "${DBUS_SESSION_BUS_ADDRESS:-}" ] || { echo "skipped: no session bus (run under dbus-run-session)"; exit 77; }

work=$(mktemp -d)
pids=()
cleanup() {
  for pid in "${pids[@]}"; do kill "$pid" 2>/dev/null; done
  wait 2>/dev/null
  rm -rf "$work"
}
trap cleanup EXIT
fail() { echo "FAIL: $*"; echo "--- agent log"; tail -n 40 "$work/agent.log"; exit 1; }
waitFor() {  # waitFor DESCRIPTION COMMAND...: up to 20 s
  local what=$1; shift
  for _ in $(seq 200); do "$@" >/dev/null 2>&1 && return 0; sleep 0.1; done
  fail "timed out waiting for $what"
}

export HOME=$work/home XDG_CONFIG_HOME=$work/home/.config
shared="$HOME/Library/Group Containers/group.com.vessimo.Quillfort.shared"
mkdir -p "$shared"
rule() {  # rule ID NAME HOST SCOPE
  printf '{"id":"%s","enabled":true,"name":"%s","action":"allow","subject":[],"destination":[{"hostnameExact":{"_0":"%s"}}],"scope":"%s","origin":"manual","priority":100}' "$1" "$2" "$3" "$4"
}
a=AAAAAAAA-0000-4000-8000-000000000001 b=BBBBBBBB-0000-4000-8000-000000000002 s=CCCCCCCC-0000-4000-8000-000000000003
printf '{"generatedAt":"2026-03-01T12:00:00Z","rules":[%s,%s,%s]}' "$(rule $a "Allow api" api.example.com persistent)" \
  "$(rule $s "Left from before" old.example.com session)" "$(rule $b "Allow cdn" cdn.example.com persistent)" \
  >"$shared/RuleSnapshot.json"

Xvfb -displayfd 3 -screen 0 1280x1024x24 -nolisten tcp 3>"$work/display" >"$work/xvfb.log" 2>&1 &
pids+=($!)
for _ in $(seq 100); do [ -s "$work/display" ] && break; sleep 0.05; done
[ -s "$work/display" ] || fail "Xvfb did not start ($(cat "$work/xvfb.log"))"
export DISPLAY=:$(head -n 1 "$work/display")

"$agent" --loopback-port 0 >"$work/agent.log" 2>&1 &
agent_pid=$!
pids+=($agent_pid)
waitFor "the bus name" busctl --user status com.vessimo.Quillfort.Agent
rules() { "$tool" rules 2>&1; }
rules | grep -q 'Left from before' && fail "the session rule of an earlier run is still there: $(rules)"
grep -q 'Removed 1 session rule' "$work/agent.log" || fail "the removal of the session rule was not logged"
echo "ok: the session rule an earlier run left is gone"

"$tool" rules disable AAAAAAAA >"$work/out" 2>&1 || fail "disable: $(cat "$work/out")"
rules | grep -q 'Allow api \[disabled\]' || fail "not disabled: $(rules)"
"$tool" rules expire BBBBBBBB 1h >"$work/out" 2>&1 || fail "expire: $(cat "$work/out")"
rules | grep -q 'in 1 h' || fail "no end shown: $(rules)"
"$tool" rules expire BBBBBBBB 2s >"$work/out" 2>&1 || fail "expire 2s: $(cat "$work/out")"
waitFor "the timed rule to go" bash -c "! '$tool' rules | grep -q 'Allow cdn'"
grep -q 'Rule "Allow cdn".*expired' "$work/agent.log" || fail "the expiry was not logged"
echo "ok: disable and expire go through the agent, which removes a rule at its end"

# Without a tray the status window opens at start; hidden, `quillfort show` brings it back.
waitFor "the status window" xdotool search --onlyvisible --name '^Quillfort Agent$'
xdotool search --onlyvisible --name '^Quillfort Agent$' windowunmap
"$tool" show >"$work/out" 2>&1 || fail "show: $(cat "$work/out")"
waitFor "the status window to come back" xdotool search --onlyvisible --name '^Quillfort Agent$'
echo "ok: quillfort show brings the status window forward"

kill -TERM "$agent_pid"
wait "$agent_pid" || fail "SIGTERM ended the agent with status $?"
"$tool" rules expire AAAAAAAA 1h >"$work/out" 2>&1 && fail "expire worked without an agent"
grep -q 'start quillfort-agent first' "$work/out" || fail "expire without an agent said: $(cat "$work/out")"
"$tool" rules enable AAAAAAAA >"$work/out" 2>&1 || fail "enable without an agent: $(cat "$work/out")"
rules | grep -q 'Allow api \[disabled\]' && fail "still disabled: $(rules)"
echo "ok: without an agent the tool edits the file, and says an end needs the agent"
