// The capabilities the filter keeps once it is set up. Loading the kernel
// programs and installing the ruleset need more; serving the queue, reading
// other users' /proc entries, hashing their executables and touching the
// served user's folder as that user need only these. Capabilities belong to
// threads, so they are dropped before the filter starts any other thread.
#pragma once

#include <string>
#include <vector>

#include "platform/Error.hpp"

namespace quillfort::Privileges {

// CAP_NET_ADMIN: verdicts on the queue and removing the ruleset at the end.
// CAP_SYS_PTRACE: /proc/PID/exe, cwd and fd of other users' processes.
// CAP_DAC_READ_SEARCH: reading any executable to hash it.
// CAP_SETUID, CAP_SETGID: taking the served user's file-system identity.
[[nodiscard]] std::vector<int> afterSetUp();

// Keeps exactly `capabilities` (of those held) in the effective and
// permitted sets, clears the inheritable set, removes everything else from
// the bounding set and forbids gaining privileges through exec.
[[nodiscard]] VoidResult keepOnly(const std::vector<int>& capabilities);

// The names of the effective capabilities of this thread ("cap_net_admin", ...).
[[nodiscard]] std::vector<std::string> effective();

}  // namespace quillfort::Privileges
