#include "QuillfortFilter/process/ProcessCache.hpp"

#include "QuillfortFilter/process/ProcessTags.hpp"

#include <fstream>
#include <iterator>
#include <set>
#include <system_error>

namespace quillfort {

namespace {

constexpr std::size_t maximumAncestors = 64;

std::optional<std::string> executableLink(const ProcessLineage::ProcfsView& procfs, std::int32_t pid) {
    std::error_code error;
    auto target = std::filesystem::read_symlink(procfs.root / std::to_string(pid) / "exe", error);
    if (error) return std::nullopt;
    return target.string();
}

}  // namespace

ProcessCache::ProcessCache(ProcessLineage::ProcfsView procfs, std::size_t capacity)
    : procfs_(std::move(procfs)), capacity_(std::max<std::size_t>(capacity, 1)) {}

bool ProcessCache::stillCurrent(const ProcessRecord& record, std::optional<std::uint64_t> startTicks,
                                bool mustRecheck) const {
    if (startTicks && *startTicks != record.startTicks) return false;
    if (!mustRecheck) return true;
    if (!startTicks) {
        // A pid alone may have been reused: the start time tells.
        std::ifstream stream(procfs_.root / std::to_string(record.node.identity.pid) / "stat");
        std::string content((std::istreambuf_iterator<char>(stream)), std::istreambuf_iterator<char>());
        auto stat = ProcessLineage::parseStat(content);
        if (!stat || stat->startTicks != record.startTicks) return false;
    }
    // Same process, but an exec may have replaced the program. A link we may
    // not read (another user's process without the right to trace it) cannot
    // tell; the start time alone then has to do.
    auto link = executableLink(procfs_, record.node.identity.pid);
    return !link || *link == record.node.identity.executablePath ||
           *link == record.node.identity.executablePath + " (deleted)";
}

std::shared_ptr<const ProcessRecord> ProcessCache::process(std::int32_t pid, std::optional<std::uint64_t> startTicks,
                                                           std::chrono::steady_clock::time_point now) {
    if (auto found = entries_.find(pid); found != entries_.end()) {
        auto& entry = found->second;
        // The flow's own process is checked every time: it may have just exec'd.
        // The count is read before the check, so an exec during it shows next time.
        const auto generation = execGeneration_ ? std::optional<std::uint64_t>(*execGeneration_) : std::nullopt;
        const bool noExecSince = generation && startTicks && *startTicks == entry.record->startTicks &&
                                 entry.record->execGenerationChecked == generation;
        if (noExecSince || stillCurrent(*entry.record, startTicks, true)) {
            entry.record->execGenerationChecked = generation;
            ++hits_;
            entry.record->checkedAt = now;
            recency_.splice(recency_.begin(), recency_, entry.position);
            return entry.record;
        }
        recency_.erase(entry.position);
        entries_.erase(found);
    }
    auto record = read(pid, now);
    if (record && startTicks && record->startTicks != *startTicks) return nullptr;
    return record;
}

std::shared_ptr<const ProcessRecord> ProcessCache::read(std::int32_t pid, std::chrono::steady_clock::time_point now) {
    ++misses_;
    const auto generation = execGeneration_ ? std::optional<std::uint64_t>(*execGeneration_) : std::nullopt;
    auto inspected = ProcessLineage::inspectProcess(pid, procfs_);
    if (!inspected) return nullptr;
    auto record = std::make_shared<ProcessRecord>();
    record->node.identity = std::move(inspected->identity);
    record->node.parentAuditToken = record->node.identity.parentAuditToken;
    record->node.tags = ProcessTags::classify(record->node.identity);
    record->parentPid = inspected->parentPid;
    record->startTicks = inspected->startTicks;
    record->executableKey = ExecutableIdentities::keyOf(procfs_.root / std::to_string(pid) / "exe");
    record->checkedAt = now;
    record->execGenerationChecked = generation;
    while (entries_.size() >= capacity_ && !recency_.empty()) {
        entries_.erase(recency_.back());
        recency_.pop_back();
    }
    recency_.push_front(pid);
    entries_.emplace(pid, Entry{record, recency_.begin()});
    return record;
}

std::vector<std::shared_ptr<const ProcessRecord>> ProcessCache::ancestors(const ProcessRecord& record,
                                                                          std::chrono::steady_clock::time_point now) {
    std::vector<std::shared_ptr<const ProcessRecord>> chain;
    std::set<std::int32_t> seen{record.node.identity.pid};
    std::int32_t parentPid = record.parentPid;
    while (parentPid > 0 && chain.size() < maximumAncestors && seen.insert(parentPid).second) {
        std::shared_ptr<const ProcessRecord> parent;
        if (auto found = entries_.find(parentPid); found != entries_.end()) {
            auto& entry = found->second;
            const bool recheck = now - entry.record->checkedAt >= recheckAfter;
            if (stillCurrent(*entry.record, std::nullopt, recheck)) {
                ++hits_;
                if (recheck) entry.record->checkedAt = now;
                recency_.splice(recency_.begin(), recency_, entry.position);
                parent = entry.record;
            } else {
                recency_.erase(entry.position);
                entries_.erase(found);
            }
        }
        if (!parent) parent = read(parentPid, now);
        if (!parent) break;  // it exited meanwhile, or is hidden from us
        chain.push_back(parent);
        parentPid = parent->parentPid;
    }
    return chain;
}

void ProcessCache::setCodeIdentity(const ExecutableFileKey& key, const ExecutableCodeIdentity& identity) {
    for (auto& [pid, entry] : entries_) {
        if (entry.record->executableKey != key) continue;
        entry.record->node.identity.cdHash = identity.cdHash;
        entry.record->node.identity.signingID = identity.signingID;
        entry.record->codeIdentityKnown = true;
    }
}

}  // namespace quillfort
