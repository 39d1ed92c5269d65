#!/usr/bin/env bash
# The filter's system unit as systemd reads it: it verifies (with the built
# program standing in for the installed one), it is ordered before the
# network, and its exposure rating is 3.5 or lower. Skipped where the
# machine has no systemd-analyze.
set -euo pipefail
unit=$1 program=$2
command -v systemd-analyze >/dev/null || { echo "SKIP: no systemd-analyze here"; exit 77; }
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
# The manual page is checked once the package installs it.
sed -e "s|^ExecStart=/usr/sbin/quillfort-filter|ExecStart=$program|" -e "/^Documentation=/d" "$unit" \
  >"$work/quillfort-filter.service"

systemd-analyze verify "$work/quillfort-filter.service"
grep -qx 'Before=network-pre.target shutdown.target' "$unit"
grep -qx 'Wants=network-pre.target' "$unit"
rating=$(systemd-analyze security --offline=true "$work/quillfort-filter.service" 2>/dev/null |
  sed -n 's/.*Overall exposure level for quillfort-filter.service: \([0-9.]*\).*/\1/p')
echo "exposure: $rating"
awk -v r="$rating" 'BEGIN { exit !(r != "" && r <= 3.5) }'
