#!/usr/bin/env bash
# Sets up, builds and runs the whole firewall in the foreground: the filter
# (as root, through sudo when needed) and the prompt agent of this session.
# Ctrl-C stops both; the filter removes its kernel rules on the way out.
# Where the machine gives no right to intercept traffic (a container without
# CAP_NET_ADMIN), it says so and runs the agent alone. Extra arguments go to
# quillfort-filter (for example --unknown-traffic permissive, --include-loopback).
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh
cmake --preset default >/dev/null
targets=(quillfort-agent quillfort-filter quillfort)
# The agent's windows are a program of their own, built where the UI is.
grep -q '^QUILLFORT_WITH_UI:BOOL=ON' build/default/CMakeCache.txt && targets+=(quillfort-agent-window)
cmake --build --preset default --target "${targets[@]}"
build=build/default
if [ "$(id -u)" -eq 0 ]; then sudo=(); else sudo=(sudo); fi

# The same check the filter's first step makes: may this machine's ruleset be changed?
if ! "${sudo[@]}" nft list tables >/dev/null 2>&1; then
  echo "run: no right to intercept network traffic here (nftables refuses CAP_NET_ADMIN); running the agent alone."
  exec "$build/QuillfortAgent/quillfort-agent"
fi

"$build/QuillfortAgent/quillfort-agent" &
agent=$!
"${sudo[@]}" "$build/QuillfortFilter/quillfort-filter" --home "$HOME" --state-dir "$PWD/$build/filter-state" \
  --status-file "$PWD/$build/filter-status.json" "$@" 2>"$build/filter.log" &
filter=$!
stop() {
  trap - INT TERM
  "${sudo[@]}" kill -TERM "$filter" 2>/dev/null || true
  kill -TERM "$agent" 2>/dev/null || true
  wait "$filter" "$agent" 2>/dev/null || true
  echo "run: stopped; the filter's kernel rules are removed."
}
trap stop INT TERM
for _ in $(seq 100); do
  grep -q "is filtering new flows" "$build/filter.log" 2>/dev/null && break
  kill -0 "$filter" 2>/dev/null || { cat "$build/filter.log" >&2; stop; exit 1; }
  sleep 0.1
done
echo "run: intercepting every new outbound TCP and UDP flow and inbound connection of this machine (loopback only with --include-loopback); the agent asks about flows no rule decides. Ctrl-C stops both. What it decided: $build/tools/quillfort filter status --status-file $build/filter-status.json"
wait "$agent" || true
stop
