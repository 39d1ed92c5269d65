#!/usr/bin/env bash
# Sets up, builds and runs every test (unit and end-to-end) in the default preset.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh
cmake --preset default >/dev/null
cmake --build --preset default
ctest --preset default "$@"
# The Debian package installs, answers a prompt and removes cleanly (root or sudo).
scripts/package-check.sh
