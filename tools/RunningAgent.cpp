#include "tools/RunningAgent.hpp"

#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <charconv>
#include <fstream>
#include <sstream>
#include <string>

#include <fmt/format.h>

#include "model/Text.hpp"

namespace quillfort::RunningAgent {

std::optional<std::int32_t> lockHolderIn(std::string_view procLocks, unsigned major, unsigned minor,
                                         std::uint64_t inode) {
    // "1: FLOCK  ADVISORY  WRITE 4711 00:2d:1234 0 EOF"
    const std::string file = fmt::format("{:02x}:{:02x}:{}", major, minor, inode);
    for (auto line : text::splitNonEmpty(procLocks, '\n')) {
        std::istringstream fields{std::string(line)};
        std::string number, kind, mode, access, pid, where;
        fields >> number >> kind;
        if (kind == "->") continue;  // waiting for the lock, not holding it
        fields >> mode >> access >> pid >> where;
        if (where != file) continue;
        std::int32_t holder = 0;
        if (std::from_chars(pid.data(), pid.data() + pid.size(), holder).ec == std::errc() && holder > 0) return holder;
    }
    return std::nullopt;
}

std::optional<Agent> holdingLock(const std::filesystem::path& lockFile, const ProcessLineage::ProcfsView& procfs) {
    struct stat info{};
    if (::stat(lockFile.c_str(), &info) != 0) return std::nullopt;
    std::ifstream in(procfs.root / "locks");
    std::stringstream locks;
    locks << in.rdbuf();
    const auto pid = lockHolderIn(locks.str(), ::major(info.st_dev), ::minor(info.st_dev), info.st_ino);
    if (!pid) return std::nullopt;
    Agent agent{.pid = *pid, .startedAt = std::nullopt};
    if (auto process = ProcessLineage::inspectProcess(*pid, procfs)) agent.startedAt = process->identity.launchTime;
    return agent;
}

}  // namespace quillfort::RunningAgent
