#!/usr/bin/env bash
# Sets up, builds and runs the prompt agent in the foreground: with its window
# when the session has a display, headless otherwise (or with --headless).
# Extra arguments go to quillfort-agent.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh
cmake --preset default >/dev/null
cmake --build --preset default --target quillfort-agent quillfort
exec build/default/QuillfortAgent/quillfort-agent "$@"
