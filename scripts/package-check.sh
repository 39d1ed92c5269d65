#!/usr/bin/env bash
# CI: builds the Debian package from the default build, installs it, runs the
# installed agent as a new user would (fresh HOME, bare environment), puts one
# prompt through it with the installed `quillfort` and answers it, runs the
# installed filter in a network namespace, checks the login item, manual
# pages, units and desktop files, then removes the package.
# The machine is left as it was found: the package and anything apt pulled in
# with it are purged again, also when a step fails. Any failing step fails the
# script. Needs a finished default build (scripts/test.sh makes one).
set -euo pipefail
cd "$(dirname "$0")/.."

package=quillfort-agent
build=build/default
if [ "$(id -u)" -eq 0 ]; then sudo=(); else sudo=(sudo); fi

step() { echo "package-check: $*"; }
fail() { echo "package-check: FAILED: $*" >&2; exit 1; }
installed() { dpkg-query -W -f='${Status}' "$1" 2>/dev/null | grep -q 'install ok installed'; }

installed "$package" && fail "$package is already installed here; this check would replace and then remove it"

work=$(mktemp -d /tmp/quillfort-package-check.XXXXXX)
agent_pid=
packages_before="$work/packages-before"
dpkg-query -W -f='${Package}\n' | sort >"$packages_before"

cleanup() {
  local status=$?
  set +e
  [ -n "$agent_pid" ] && kill "$agent_pid" 2>/dev/null && wait "$agent_pid" 2>/dev/null
  if installed "$package"; then
    "${sudo[@]}" env DEBIAN_FRONTEND=noninteractive apt-get -o DPkg::Lock::Timeout=120 purge -y -qq "$package" >/dev/null
  fi
  # Whatever apt installed with the package goes too.
  local extra
  extra=$(dpkg-query -W -f='${Package}\n' | sort | comm -13 "$packages_before" -)
  if [ -n "$extra" ]; then
    # shellcheck disable=SC2086
    "${sudo[@]}" env DEBIAN_FRONTEND=noninteractive apt-get -o DPkg::Lock::Timeout=120 purge -y -qq $extra >/dev/null
  fi
  if ! dpkg-query -W -f='${Package}\n' | sort | cmp -s "$packages_before" -; then
    echo "package-check: FAILED: the installed packages differ from before the check" >&2
    status=1
  fi
  rm -rf "$work"
  exit "$status"
}
trap cleanup EXIT

step "building the package"
cpack -G DEB --config "$build/CPackConfig.cmake" -B "$work/out" >"$work/cpack.log" 2>&1 ||
  { cat "$work/cpack.log" >&2; fail "cpack"; }
deb=$(ls "$work"/out/"$package"_*.deb)
dpkg-deb -f "$deb" Package Version Architecture Depends
for library in libboost-json libfmt libsystemd; do
  dpkg-deb -f "$deb" Depends | grep -q "$library" || fail "the package does not depend on $library"
done

step "installing $(basename "$deb")"
cp "$deb" "$work/package.deb"
"${sudo[@]}" env DEBIAN_FRONTEND=noninteractive apt-get -o DPkg::Lock::Timeout=120 install -y -qq --no-install-recommends \
  "$work/package.deb" >"$work/apt.log" 2>&1 || { cat "$work/apt.log" >&2; fail "apt-get install"; }
dpkg -L "$package" >"$work/files"
for file in /usr/bin/quillfort-agent /usr/bin/quillfort /usr/libexec/quillfort/quillfort-agent-window \
  /usr/share/icons/hicolor/scalable/apps/quillfort-agent.svg \
  /usr/share/icons/hicolor/symbolic/apps/quillfort-agent-symbolic.svg \
  /usr/share/applications/quillfort-agent.desktop /etc/xdg/autostart/quillfort-agent.desktop \
  /usr/lib/systemd/user/quillfort-agent.service /usr/share/dbus-1/services/com.vessimo.Quillfort.Agent.service \
  /usr/sbin/quillfort-filter /usr/lib/systemd/system/quillfort-filter.service \
  /usr/share/man/man1/quillfort.1.gz /usr/share/man/man1/quillfort-agent.1.gz \
  /usr/share/man/man8/quillfort-filter.8.gz; do
  grep -qx "$file" "$work/files" && [ -e "$file" ] || fail "the package does not install $file"
done

step "checking the desktop entries, the unit and the manual pages"
if command -v desktop-file-validate >/dev/null; then
  desktop-file-validate /usr/share/applications/quillfort-agent.desktop /etc/xdg/autostart/quillfort-agent.desktop
fi
for page in man1/quillfort.1 man1/quillfort-agent.1 man8/quillfort-filter.8; do
  warnings=$(MANWIDTH=80 man --warnings -l "/usr/share/man/$page.gz" 2>&1 >/dev/null)
  [ -z "$warnings" ] || fail "man $page: $warnings"
done
if command -v systemd-analyze >/dev/null; then
  systemd-analyze verify /usr/lib/systemd/system/quillfort-filter.service || fail "the filter's unit does not verify"
fi

# A new user: an empty home and only the basic variables.
home="$work/home"
mkdir -p "$home"
as_new_user=(env -i HOME="$home" PATH=/usr/bin:/bin LANG=C.UTF-8)
shared="$home/Library/Group Containers/group.com.vessimo.Quillfort.shared"

step "starting the installed agent with a fresh home"
# Port 0: other agents on this machine may hold the default port.
"${as_new_user[@]}" /usr/bin/quillfort-agent --headless --loopback-port 0 2>"$work/agent.log" &
agent_pid=$!
for _ in $(seq 100); do
  [ -s "$shared/QuillfortPromptAgent.endpoint" ] && [ -s "$shared/PromptAgentStatus.json" ] && break
  kill -0 "$agent_pid" 2>/dev/null || { cat "$work/agent.log" >&2; fail "the agent ended at start"; }
  sleep 0.1
done
[ -s "$shared/QuillfortPromptAgent.endpoint" ] || { cat "$work/agent.log" >&2; fail "no listener manifest"; }
grep -q 'default \[com.vessimo.Quillfort:agent\] Launching Quillfort agent' "$work/agent.log" ||
  { cat "$work/agent.log" >&2; fail "no launch line with subsystem and category on stderr"; }

step "sending a prompt with quillfort prompt"
"${as_new_user[@]}" /usr/bin/quillfort prompt --home "$home" --no-loopback --host pkg-check.example.org --port 8443 \
  --exe /usr/bin/curl --timeout 30 >"$work/response.json" 2>"$work/prompt.err" &
prompt_pid=$!
prompt_id=
for _ in $(seq 100); do
  prompt_id=$("${as_new_user[@]}" /usr/bin/quillfort status --home "$home" --json |
    grep -o '"promptID" *: *"[0-9A-F-]*"' | head -1 | grep -o '[0-9A-F-]\{36\}' || true)
  [ -n "$prompt_id" ] && break
  sleep 0.1
done
[ -n "$prompt_id" ] || fail "the prompt never reached the agent's queue"

step "answering prompt $prompt_id with quillfort answer"
"${as_new_user[@]}" /usr/bin/quillfort answer --home "$home" "$prompt_id" block-once
wait "$prompt_pid" || { cat "$work/prompt.err" >&2; fail "quillfort prompt"; }
grep -q "\"promptID\" *: *\"$prompt_id\"" "$work/response.json" &&
  grep -q '"action" *: *"drop"' "$work/response.json" ||
  { cat "$work/response.json" >&2; fail "the answer is not the block given"; }

# The installed filter in a network namespace of its own: it installs its
# table, serves the fresh home's folder, and leaves nothing behind on SIGTERM.
if [ "$(id -u)" -eq 0 ] && unshare --net true 2>/dev/null; then
  step "running the installed filter in a network namespace"
  unshare --net bash -c '
    set -euo pipefail
    ip link set lo up
    /usr/sbin/quillfort-filter --home "$1" --state-dir "$2/filter-state" --status-file "$2/filter-status.json" \
      --config "$2/none.json" 2>"$2/filter.log" &
    filter=$!
    for _ in $(seq 100); do grep -q "is filtering new flows" "$2/filter.log" && break; sleep 0.1; done
    nft list tables | grep -qx "table inet quillfort"
    /usr/bin/quillfort filter status --status-file "$2/filter-status.json" | grep -q "^Flow Filter: *Running"
    kill -TERM "$filter"; wait "$filter"
    [ -z "$(nft list tables)" ]
  ' filter-check "$home" "$work" || { cat "$work/filter.log" >&2; fail "the installed filter"; }
else
  step "skipping the installed filter (needs root and network namespaces)"
fi

step "switching the login item off and on"
# No systemd user manager runs here, so the autostart entry is the login item.
"${as_new_user[@]}" /usr/bin/quillfort login-item status | tee "$work/login-item"
grep -q 'starts at login through the autostart entry /etc/xdg/autostart/quillfort-agent.desktop' "$work/login-item" ||
  fail "login-item status does not name the installed autostart entry"
"${as_new_user[@]}" /usr/bin/quillfort login-item disable
grep -qx 'Hidden=true' "$home/.config/autostart/quillfort-agent.desktop" || fail "login-item disable"
"${as_new_user[@]}" /usr/bin/quillfort login-item enable
[ ! -e "$home/.config/autostart/quillfort-agent.desktop" ] || fail "login-item enable left the hiding copy"

step "stopping the agent"
kill -TERM "$agent_pid"
agent_status=0
wait "$agent_pid" || agent_status=$?
agent_pid=
[ "$agent_status" -eq 0 ] || fail "the agent ended with status $agent_status on SIGTERM"

# The journal: a private journald in a mount namespace of its own (so nothing
# of this machine's logging is touched) receives the installed agent's records.
if [ "$(id -u)" -eq 0 ] && [ -x /lib/systemd/systemd-journald ] && unshare --mount true 2>/dev/null; then
  step "checking the journal fields"
  mkdir -p "$work/journal-home"
  unshare --mount --propagation private bash -c '
    set -euo pipefail
    mount -t tmpfs tmpfs /run/systemd && mkdir -p /run/log && mount -t tmpfs tmpfs /run/log
    /lib/systemd/systemd-journald >/dev/null 2>&1 &
    journald=$!
    trap "kill $journald" EXIT
    for _ in $(seq 50); do [ -S /run/systemd/journal/socket ] && break; sleep 0.1; done
    env -i HOME="$1" PATH=/usr/bin:/bin QUILLFORT_LOG_TO_JOURNAL=1 \
      /usr/bin/quillfort-agent --headless --loopback-port 0 2>/dev/null &
    agent=$!
    for _ in $(seq 50); do
      journalctl -D /run/log/journal QUILLFORT_CATEGORY=agent QUILLFORT_SUBSYSTEM=com.vessimo.Quillfort \
        SYSLOG_IDENTIFIER=quillfort-agent -o cat 2>/dev/null | grep -q "^Launching Quillfort agent" && break
      sleep 0.1
    done
    kill -TERM "$agent"; wait "$agent"
    journalctl -D /run/log/journal QUILLFORT_CATEGORY=agent QUILLFORT_SUBSYSTEM=com.vessimo.Quillfort \
      SYSLOG_IDENTIFIER=quillfort-agent -o cat | grep "^Launching Quillfort agent"
  ' journal-check "$work/journal-home" || fail "the agent's records did not reach the journal with their fields"
else
  step "skipping the journal check (needs root and mount namespaces)"
fi

step "removing the package"
"${sudo[@]}" env DEBIAN_FRONTEND=noninteractive apt-get -o DPkg::Lock::Timeout=120 purge -y -qq "$package" >/dev/null
while read -r file; do
  [ -d "$file" ] || [ ! -e "$file" ] || fail "$file is still there after removal"
done <"$work/files"
step "passed"
