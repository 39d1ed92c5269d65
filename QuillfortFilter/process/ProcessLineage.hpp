// Reads a live process and its ancestors from /proc: the filter attributes
// flows with it, and the command-line tool describes a process for a prompt.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "model/Bytes.hpp"
#include "model/ProcessIdentity.hpp"
#include "platform/Error.hpp"

namespace quillfort::ProcessLineage {

// Where process information comes from: the proc file system's root and the
// kernel's clock-tick rate (start times are counted in ticks since boot).
struct ProcfsView {
    std::filesystem::path root{"/proc"};
    long clockTicksPerSecond = 100;
    // Seconds since the epoch at boot, read once; read from root/stat when absent.
    std::optional<std::uint64_t> bootTimeSeconds;

    // The running system's /proc with its real tick rate.
    [[nodiscard]] static ProcfsView system();

    bool operator==(const ProcfsView&) const = default;
};

// One process as read from /proc.
struct InspectedProcess {
    ProcessIdentity identity;
    std::int32_t parentPid = 0;     // 0 when it has none (the kernel's own)
    std::uint64_t startTicks = 0;   // clock ticks after boot

    bool operator==(const InspectedProcess&) const = default;
};

// The fields of /proc/PID/stat that attribution needs.
struct StatFields {
    std::string comm;
    char state = 'R';
    std::int32_t parentPid = 0;
    std::uint32_t ttyNr = 0;
    std::uint64_t flags = 0;  // the kernel's PF_* flags
    std::uint64_t startTicks = 0;

    // Exiting or already a zombie: its executable, arguments and working
    // directory are gone, so /proc can no longer describe it.
    [[nodiscard]] bool exiting() const noexcept { return state == 'Z' || state == 'X' || (flags & 0x4) != 0; }

    bool operator==(const StatFields&) const = default;
};

// "pid (comm) state ppid ... starttime ...": nothing unless every field needed
// is there and in range. Any text is safe to pass.
[[nodiscard]] std::optional<StatFields> parseStat(std::string_view stat);

// A process and its ancestors, nearest first, up to the first process (pid 1)
// or the first ancestor that can no longer be read.
struct ProcessLineage {
    ProcessNode process;
    std::vector<ProcessNode> ancestors;

    bool operator==(const ProcessLineage&) const = default;
};

// Fails only when the process itself cannot be read (it does not exist, or its
// stat file is unreadable or malformed). Details that are hidden from us (the
// executable link or the working directory of another user's process) are left
// out; the executable then falls back to argv[0], else "[comm]".
[[nodiscard]] Result<InspectedProcess> inspectProcess(std::int32_t pid, const ProcfsView& procfs);

[[nodiscard]] Result<ProcessLineage> inspectLineage(std::int32_t pid, const ProcfsView& procfs);

// A stable identifier of one process instance: pid (4 bytes) then start time in
// ticks (8 bytes), both big-endian. A reused pid gets another token.
[[nodiscard]] Bytes auditToken(std::int32_t pid, std::uint64_t startTicks);

// The device path of a controlling terminal from stat's tty_nr, for the
// terminals whose numbering is fixed (virtual consoles, serial lines,
// pseudo-terminals); nothing for no terminal or an unknown device.
[[nodiscard]] std::optional<std::string> terminalPath(std::uint32_t ttyNr);

}  // namespace quillfort::ProcessLineage
