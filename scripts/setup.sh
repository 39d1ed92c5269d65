#!/usr/bin/env bash
# Installs the Debian 12 packages the project builds and tests with.
# Asks apt only for what is missing; runs apt as root or through sudo.
#   scripts/setup.sh              build and test dependencies, clang-16 and its
#                                 sanitizer runtimes included (scripts/test.sh
#                                 runs the asan, tsan and fuzz stages; llvm
#                                 brings the symbolizer for readable stacks)
#   scripts/setup.sh --bench      also the profilers scripts/bench uses
set -euo pipefail

packages=(
  g++ cmake ninja-build pkg-config ccache git python3
  libboost1.81-dev libboost-json1.81-dev
  libfmt-dev libsystemd-dev libcli11-dev
  libgtest-dev libgmock-dev libbenchmark-dev
  qt6-base-dev qt6-wayland libxcb1-dev fonts-dejavu-core xvfb xdotool imagemagick
  dpkg-dev file man-db desktop-file-utils
  dbus jq tmux libncurses-dev
  clang-16 libclang-rt-16-dev llvm
  libmnl-dev libnetfilter-queue-dev libbpf-dev bpftool libssl-dev
  nftables iptables iproute2
)
for arg in "$@"; do
  case "$arg" in
    --sanitizers) ;;  # always installed now; kept so older command lines still work
    --bench) packages+=(linux-perf valgrind) ;;
    *) echo "setup.sh: unknown option $arg" >&2; exit 2 ;;
  esac
done

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$p")
  fi
done
[ ${#missing[@]} -eq 0 ] && exit 0

if [ "$(id -u)" -eq 0 ]; then sudo=(); else sudo=(sudo); fi
echo "Installing: ${missing[*]}"
"${sudo[@]}" env DEBIAN_FRONTEND=noninteractive apt-get update -qq
"${sudo[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "${missing[@]}"
