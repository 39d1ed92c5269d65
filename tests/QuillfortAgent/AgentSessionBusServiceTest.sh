#!/usr/bin/env bash
# The agent's session-bus interface, driven with busctl on a private session
# bus (CTest runs it under dbus-run-session): three prompts of curl to one host
# and one to another; one allow-always answer settles the three and leaves the
# other, with one rule in the snapshot; bad calls are refused by name and
# change nothing.
#   AgentSessionBusServiceTest.sh AGENT TOOL
set -euo pipefail
agent=$1 tool=$2
for needed in busctl jq; do command -v "$needed" >/dev/null || { echo "SKIP: no $needed"; exit 77; }; done
[ -n "${DBUS_SESSION_BUS_ADDRESS:-}" ] || { echo "SKIP: no session bus (run under dbus-run-session)"; exit 77; }

home=$(mktemp -d)
pids=()
cleanup() { kill "${pids[@]}" 2>/dev/null || true; wait 2>/dev/null || true; rm -rf "$home"; }
trap cleanup EXIT
fail() { echo "FAIL: $*"; echo "--- agent log"; cat "$home/agent.log"; exit 1; }

call() { busctl --user --json=short call com.vessimo.Quillfort.Agent /com/vessimo/Quillfort/Agent \
    com.vessimo.Quillfort.Agent "$@"; }
prompts() { call ListPrompts | jq -r '.data[0]' | jq -c '.prompts'; }
prompt() { call GetPrompt s "$1" | jq -r '.data[0]'; }
waitFor() {  # waitFor DESCRIPTION COMMAND...: up to 20 s
    local what=$1; shift
    for _ in $(seq 200); do "$@" >/dev/null 2>&1 && return 0; sleep 0.1; done
    fail "timed out waiting for $what"
}
queued() { [ "$(prompts | jq length)" = "$1" ]; }
ask() {  # ask HOST OUTFILE: a curl flow to HOST:443, its answer into OUTFILE
    HOME=$home "$tool" prompt --host "$1" --port 443 --exe /usr/bin/curl --signing-id curl \
        --no-loopback --timeout 30 >"$2" &
    pids+=($!)
}

HOME=$home QUILLFORT_AGENT_DISABLE_LOOPBACK_LISTENER=1 "$agent" --headless 2>"$home/agent.log" &
pids+=($!)
waitFor "the bus name" busctl --user status com.vessimo.Quillfort.Agent

ask a.example.org "$home/1.json"; waitFor "prompt 1" queued 1
ask a.example.org "$home/2.json"; waitFor "prompt 2" queued 2
ask b.example.org "$home/3.json"; waitFor "prompt 3" queued 3
ask a.example.org "$home/4.json"; waitFor "prompt 4" queued 4

first=$(prompts | jq -r '.[0].id')
[ "$(prompts | jq -r '.[0].texts.headerTitle')" = a.example.org:443 ] || fail "texts missing from the listing"
call SetPreset ss "$first" allowPermanent >/dev/null
[ "$(prompt "$first" | jq -r '.texts.alsoAnswersText')" = "Also answers 2 other pending prompts" ] ||
    fail "the prompt does not say what its answer also settles: $(prompt "$first")"

# Bad input is refused with a named error and changes nothing.
refused() {  # refused TEXT CALL...: the call fails saying TEXT
    local said
    if said=$(call "${@:2}" 2>&1); then fail "accepted: ${*:2}"; fi
    grep -qF "$1" <<<"$said" || fail "\"${*:2}\" said \"$said\", not \"$1\""
}
refused 'No queued prompt' Resolve ss 00000000-0000-4000-8000-000000000000 ""
refused 'Not a prompt id' Cancel s not-a-uuid
refused 'Not a preset' SetPreset ss "$first" sometimes
refused 'Not a rule selection' SetRuleSelection ss "$first" '{"includeSigner":true}'
queued 4 || fail "a refused call changed the queue"

call Resolve ss "$first" "" >/dev/null
waitFor "the decided prompts to go" queued 1
[ "$(prompts | jq -r '.[0].texts.host')" = b.example.org ] || fail "the other host's prompt did not stay"
for n in 1 2 4; do
    waitFor "answer $n" jq -e . "$home/$n.json"
    jq -e '.action == "allow" and .scope == "persistent"' "$home/$n.json" >/dev/null || fail "answer $n: $(cat "$home/$n.json")"
done
[ "$(jq -r .suggestedRule.id "$home/1.json")" = "$(jq -r .suggestedRule.id "$home/4.json")" ] || fail "rule ids differ"
waitFor "one rule in the snapshot" bash -c "'$tool' rules --json --home '$home' | jq -e '.rules | length == 1'"

echo PASS
