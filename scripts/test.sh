#!/usr/bin/env bash
# Sets up, builds and runs every test (unit and end-to-end) in the default
# preset, then the whole suite again under ASan+UBSan and again under TSan
# (both clang-16), every fuzz target for a short while, and a short run of
# the mutation check.
# QUILLFORT_SANITIZERS=0 stops after the default preset.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh
export CCACHE_BASEDIR="${CCACHE_BASEDIR:-$PWD}"
cmake --preset default >/dev/null
cmake --build --preset default
ctest --preset default "$@"
# The Debian package installs, answers a prompt and removes cleanly (root or sudo).
scripts/package-check.sh
[ "${QUILLFORT_SANITIZERS:-1}" = 0 ] && exit 0

# One build per preset: the asan build carries the fuzz targets as well.
cmake --preset asan -DQUILLFORT_WITH_FUZZ=ON >/dev/null
cmake --build --preset asan
ctest --preset asan

# The whole suite under TSan as well: it runs in a few minutes, and a list of
# "threaded" tests would quietly miss the next test that starts a thread (the
# service host, the prompt client, the executors, the agent under the
# end-to-end tests all do). The tsan preset builds without the Qt UI: Debian's
# Qt is not built with TSan, its mutexes are futexes TSan cannot see, and every
# hand-off through its event queue would be reported as a race.
cmake --preset tsan >/dev/null
cmake --build --preset tsan
ctest --preset tsan

scripts/fuzz 20

# The mutation check itself works on this machine: three faults in the model,
# built and tested in build/mutants. The score is not judged here.
scripts/mutants model 3 >/dev/null
