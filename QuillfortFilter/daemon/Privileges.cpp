#include "QuillfortFilter/daemon/Privileges.hpp"

#include <linux/capability.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>

namespace quillfort::Privileges {

namespace {

struct CapabilitySets {
    std::array<__user_cap_data_struct, _LINUX_CAPABILITY_U32S_3> data{};
};

bool get(CapabilitySets& sets) {
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    return ::syscall(SYS_capget, &header, sets.data.data()) == 0;
}

bool has(const std::array<__user_cap_data_struct, _LINUX_CAPABILITY_U32S_3>& data, int capability, bool effective) {
    const auto& word = data[static_cast<std::size_t>(capability / 32)];
    const std::uint32_t bit = 1u << (capability % 32);
    return ((effective ? word.effective : word.permitted) & bit) != 0;
}

constexpr std::array<const char*, 41> names{
    "cap_chown",        "cap_dac_override",  "cap_dac_read_search", "cap_fowner",        "cap_fsetid",
    "cap_kill",         "cap_setgid",        "cap_setuid",          "cap_setpcap",       "cap_linux_immutable",
    "cap_net_bind_service", "cap_net_broadcast", "cap_net_admin",  "cap_net_raw",       "cap_ipc_lock",
    "cap_ipc_owner",    "cap_sys_module",    "cap_sys_rawio",       "cap_sys_chroot",    "cap_sys_ptrace",
    "cap_sys_pacct",    "cap_sys_admin",     "cap_sys_boot",        "cap_sys_nice",      "cap_sys_resource",
    "cap_sys_time",     "cap_sys_tty_config", "cap_mknod",          "cap_lease",         "cap_audit_write",
    "cap_audit_control", "cap_setfcap",      "cap_mac_override",    "cap_mac_admin",     "cap_syslog",
    "cap_wake_alarm",   "cap_block_suspend", "cap_audit_read",      "cap_perfmon",       "cap_bpf",
    "cap_checkpoint_restore"};

}  // namespace

std::vector<int> afterSetUp() {
    return {CAP_NET_ADMIN, CAP_SYS_PTRACE, CAP_DAC_READ_SEARCH, CAP_SETUID, CAP_SETGID};
}

VoidResult keepOnly(const std::vector<int>& capabilities) {
    CapabilitySets current;
    if (!get(current)) return std::unexpected(Error::fromErrno(errno, "capget"));
    // The bounding set first: dropping from it needs CAP_SETPCAP, which goes next.
    for (int capability = 0; capability <= CAP_LAST_CAP; ++capability) {
        if (std::find(capabilities.begin(), capabilities.end(), capability) != capabilities.end()) continue;
        if (::prctl(PR_CAPBSET_READ, capability, 0, 0, 0) == 1 && ::prctl(PR_CAPBSET_DROP, capability, 0, 0, 0) != 0 &&
            errno != EPERM && errno != EINVAL)
            return std::unexpected(Error::fromErrno(errno, "dropping from the capability bounding set"));
    }
    CapabilitySets wanted;
    for (int capability : capabilities) {
        if (!has(current.data, capability, false)) continue;  // never held, cannot be kept
        auto& word = wanted.data[static_cast<std::size_t>(capability / 32)];
        const std::uint32_t bit = 1u << (capability % 32);
        word.permitted |= bit;
        word.effective |= bit;
    }
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    if (::syscall(SYS_capset, &header, wanted.data.data()) != 0) return std::unexpected(Error::fromErrno(errno, "capset"));
    if (::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0)
        return std::unexpected(Error::fromErrno(errno, "no_new_privs"));
    return {};
}

std::vector<std::string> effective() {
    std::vector<std::string> held;
    CapabilitySets current;
    if (!get(current)) return held;
    for (int capability = 0; capability <= CAP_LAST_CAP && capability < static_cast<int>(names.size()); ++capability)
        if (has(current.data, capability, true)) held.emplace_back(names[static_cast<std::size_t>(capability)]);
    return held;
}

}  // namespace quillfort::Privileges
