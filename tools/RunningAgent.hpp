// Which agent runs for a shared folder: the process that holds the agent's
// single-instance lock, as the kernel lists it in /proc/locks. Read without
// touching the lock, so a look never keeps an agent from starting.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string_view>

#include "model/Date.hpp"
#include "QuillfortFilter/process/ProcessLineage.hpp"

namespace quillfort::RunningAgent {

struct Agent {
    std::int32_t pid = 0;
    std::optional<Date> startedAt;  // nothing when its start time cannot be read

    bool operator==(const Agent&) const = default;
};

// The process holding `lockFile`; nothing when no process does (no agent
// runs) or the file does not exist.
[[nodiscard]] std::optional<Agent> holdingLock(
    const std::filesystem::path& lockFile,
    const ProcessLineage::ProcfsView& procfs = ProcessLineage::ProcfsView::system());

// The pid that holds a lock on the file (device major:minor, inode) among the
// lines of /proc/locks; waiters ("->") do not count.
[[nodiscard]] std::optional<std::int32_t> lockHolderIn(std::string_view procLocks, unsigned major, unsigned minor,
                                                      std::uint64_t inode);

}  // namespace quillfort::RunningAgent
