// Live processes as the filter attributes flows to them, kept between flows:
// one /proc read per process (and per exec), not one per flow. Keyed by pid
// and checked against the process's start time, so a reused pid is never
// mistaken for the process that had it before. Bounded; the least recently
// used entries go first.
#pragma once

#include <chrono>
#include <cstdint>
#include <list>
#include <memory>
#include <optional>
#include <unordered_map>
#include <vector>

#include "QuillfortFilter/process/ExecutableIdentities.hpp"
#include "QuillfortFilter/process/ProcessLineage.hpp"
#include "model/ProcessIdentity.hpp"

namespace quillfort {

struct ProcessRecord {
    ProcessNode node;  // identity, tags and state as read; code identity filled in later
    std::int32_t parentPid = 0;
    std::uint64_t startTicks = 0;
    std::optional<ExecutableFileKey> executableKey;
    bool codeIdentityKnown = false;  // cdHash and signingID hold what could be found (maybe nothing)
    std::optional<std::uint64_t> execGenerationChecked;  // the machine's exec count when last found current
    std::chrono::steady_clock::time_point checkedAt{};
};

class ProcessCache {
public:
    static constexpr std::size_t defaultCapacity = 4096;
    // A cached ancestor is trusted this long before its executable is checked again.
    static constexpr std::chrono::seconds recheckAfter{2};

    explicit ProcessCache(ProcessLineage::ProcfsView procfs, std::size_t capacity = defaultCapacity);

    // The running process `pid`: from the cache when it is still the same
    // process running the same executable, else read afresh. With
    // `startTicks`, a process that started at another time is not this one.
    // Nothing when the process is gone or unreadable.
    [[nodiscard]] std::shared_ptr<const ProcessRecord> process(std::int32_t pid,
                                                               std::optional<std::uint64_t> startTicks,
                                                               std::chrono::steady_clock::time_point now);

    // The ancestors of `record`, nearest first, up to the first process or
    // the first that can no longer be read; at most 64.
    [[nodiscard]] std::vector<std::shared_ptr<const ProcessRecord>> ancestors(
        const ProcessRecord& record, std::chrono::steady_clock::time_point now);

    // A count of the machine's execs that the kernel keeps: while it stands
    // where it stood when a process was last found current, that process
    // cannot have exec'd, and its executable link is not read again.
    void useExecGeneration(const volatile std::uint64_t* generation) noexcept { execGeneration_ = generation; }

    // Keeps the code identity found for an executable on every cached record of it.
    void setCodeIdentity(const ExecutableFileKey& key, const ExecutableCodeIdentity& identity);

    [[nodiscard]] const ProcessLineage::ProcfsView& procfs() const noexcept { return procfs_; }
    [[nodiscard]] std::size_t size() const noexcept { return entries_.size(); }
    [[nodiscard]] std::uint64_t hits() const noexcept { return hits_; }
    [[nodiscard]] std::uint64_t misses() const noexcept { return misses_; }

private:
    struct Entry {
        std::shared_ptr<ProcessRecord> record;
        std::list<std::int32_t>::iterator position;
    };

    std::shared_ptr<const ProcessRecord> read(std::int32_t pid, std::chrono::steady_clock::time_point now);
    [[nodiscard]] bool stillCurrent(const ProcessRecord& record, std::optional<std::uint64_t> startTicks,
                                    bool mustRecheck) const;

    ProcessLineage::ProcfsView procfs_;
    std::size_t capacity_;
    const volatile std::uint64_t* execGeneration_ = nullptr;
    std::list<std::int32_t> recency_;  // most recent at the front
    std::unordered_map<std::int32_t, Entry> entries_;
    std::uint64_t hits_ = 0;
    std::uint64_t misses_ = 0;
};

}  // namespace quillfort
