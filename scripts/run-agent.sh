#!/usr/bin/env bash
# Sets up, builds and runs the prompt agent in the foreground: with its window
# when the session has a display, headless otherwise (or with --headless).
# Extra arguments go to quillfort-agent.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh
cmake --preset default >/dev/null
targets=(quillfort-agent quillfort)
# The windows are a program of their own, built where the UI is.
grep -q '^QUILLFORT_WITH_UI:BOOL=ON' build/default/CMakeCache.txt && targets+=(quillfort-agent-window)
cmake --build --preset default --target "${targets[@]}"
exec build/default/QuillfortAgent/quillfort-agent "$@"
