// The agent's status as the rest of the system sees it: the snapshot held in
// memory and its mirror, the shared status file. The file is written off every
// answer's path, on the publisher's own writer thread: changes are coalesced,
// the newest snapshot is always the one left on disk, and it lands within
// `writeDelay` plus one write of the last change.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "QuillfortAgent/coordinator/AgentPromptSession.hpp"
#include "contracts/PromptAgentStatusSnapshot.hpp"
#include "contracts/PromptAgentStatusStore.hpp"
#include "platform/Clock.hpp"
#include "support/QuillfortLogger.hpp"

namespace quillfort {

// Threads: publish() and snapshot() from any thread; publishPresentation() on
// the main thread only (it keeps the per-session cache); the file is written on
// the publisher's writer thread, or by stop() on the thread calling it.
class AgentStatusPublisher {
public:
    using Mutation = std::function<void(PromptAgentStatusSnapshot&)>;

    // How long the writer lets a burst of changes settle before it writes.
    static constexpr std::chrono::milliseconds writeDelay{20};

    // `store` refers to a file system that must outlive the publisher.
    AgentStatusPublisher(PromptAgentStatusStore store, std::shared_ptr<Clock> clock, PromptAgentStatusSnapshot initial);
    // Same as stop(false).
    ~AgentStatusPublisher();
    AgentStatusPublisher(const AgentStatusPublisher&) = delete;
    AgentStatusPublisher& operator=(const AgentStatusPublisher&) = delete;

    // Applies `mutation`, stamps `updatedAt` and schedules a write; returns the
    // status text in force afterwards (the coordinator shows it).
    std::string publish(const Mutation& mutation);

    // The queue as the coordinator holds it now. A session's entry is rebuilt
    // only when something that shows in it changed since the last call, so a
    // change costs its own entry, not the whole queue. Returns the status text
    // in force, as publish() does.
    std::string publishPresentation(const std::vector<AgentPromptSession>& sessions, bool promptWindowVisible);

    [[nodiscard]] PromptAgentStatusSnapshot snapshot() const;
    [[nodiscard]] std::string statusText() const;

    // Ends the writer thread; with `flushPending`, a change not yet on disk is
    // written first. Nothing is written afterwards. Idempotent.
    void stop(bool flushPending);

    [[nodiscard]] static PromptAgentQueuedPromptSnapshot makeQueuedPromptSnapshot(const AgentPromptSession& session);
    [[nodiscard]] static PromptAgentActivePromptSnapshot makeActivePromptSnapshot(
        const PromptAgentQueuedPromptSnapshot& queued, std::int64_t queueCount);

private:
    using QueuedEntry = std::shared_ptr<const PromptAgentQueuedPromptSnapshot>;

    // What a queued entry is made of beyond the request, which a session never changes.
    struct EntryKey {
        Date receivedAt{};
        AgentPromptDecisionPreset selectedPreset = AgentPromptDecisionPreset::allowOnce;
        FlowPromptRuleSelection ruleSelection;
        bool reuseExistingSignerRule = false;

        bool operator==(const EntryKey&) const = default;
    };
    struct CachedEntry {
        EntryKey key;
        QueuedEntry entry;
        std::uint64_t generation = 0;
    };

    [[nodiscard]] PromptAgentStatusSnapshot assembleLocked() const;
    void runWriter(std::stop_token stop);
    void write(const PromptAgentStatusSnapshot& snapshot) const;

    PromptAgentStatusStore store_;
    std::shared_ptr<Clock> clock_;
    Logger logger_{QuillfortLogCategory::agent};

    mutable std::mutex lock_;
    std::condition_variable_any changed_;
    PromptAgentStatusSnapshot status_;  // queuedPrompts stays empty; the entries are in queue_
    std::vector<QueuedEntry> queue_;
    bool dirty_ = false;
    bool stopped_ = false;

    // Main thread only.
    std::unordered_map<Uuid, CachedEntry> cache_;
    std::uint64_t generation_ = 0;

    std::jthread writer_;  // last: it starts after everything above exists
};

}  // namespace quillfort
