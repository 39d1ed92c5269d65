// Which process holds a socket, found the slow way: by reading every
// process's descriptor table in /proc. The filter uses it only where the
// socket-owner programs cannot run, and for listening sockets (which live
// long); one scan answers for every socket open at the time, and scans are
// spaced out so a burst of unknown sockets cannot turn into a burst of scans.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string_view>
#include <unordered_map>

#include "QuillfortFilter/process/ProcessLineage.hpp"

namespace quillfort {

class SocketInodeIndex {
public:
    using Clock = std::chrono::steady_clock;
    static constexpr std::chrono::milliseconds minimumScanInterval{200};

    explicit SocketInodeIndex(ProcessLineage::ProcfsView procfs) : procfs_(std::move(procfs)) {}

    // The process holding socket `inode`: from the last scan, or from a new
    // scan when the last one is old enough.
    [[nodiscard]] std::optional<std::int32_t> owner(std::uint64_t inode, Clock::time_point now);

    [[nodiscard]] std::uint64_t scans() const noexcept { return scans_; }

    // The inode in a descriptor link's text ("socket:[12345]"), or nothing.
    [[nodiscard]] static std::optional<std::uint64_t> socketInode(std::string_view link) noexcept;

private:
    void scan();

    ProcessLineage::ProcfsView procfs_;
    std::unordered_map<std::uint64_t, std::int32_t> owners_;
    std::optional<Clock::time_point> lastScan_;
    std::uint64_t scans_ = 0;
};

}  // namespace quillfort
