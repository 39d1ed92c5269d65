#include "QuillfortAgent/publishing/AgentStatusPublisher.hpp"

#include <pthread.h>

#include <iterator>
#include <utility>

#include <fmt/format.h>

#include "model/Text.hpp"

namespace quillfort {

namespace {

std::string processDisplayTitle(const AgentPromptSession& session) {
    const auto& node = session.request.context.matchedProcessNode;
    if (!node) return "Unknown Process";
    if (node->identity.bundleID && !node->identity.bundleID->empty()) return *node->identity.bundleID;
    if (!node->identity.executablePath.empty()) return std::string(text::lastPathComponent(node->identity.executablePath));
    return "Unknown Process";
}

std::string previewText(const AgentPromptSession& session) {
    if (const auto rule = session.suggestedRule()) {
        return fmt::format("{} {} {}", rawValue(rule->action), rawValue(rule->scope), rule->name);
    }
    return fmt::format("Temporary {} decision", rawValue(AgentPromptDecisionPresets::action(session.selectedPreset)));
}

}  // namespace

AgentStatusPublisher::AgentStatusPublisher(PromptAgentStatusStore store, std::shared_ptr<Clock> clock,
                                           PromptAgentStatusSnapshot initial)
    : store_(std::move(store)), clock_(std::move(clock)), status_(std::move(initial)) {
    writer_ = std::jthread([this](std::stop_token stop) {
        // Linux thread names are limited to 15 characters.
        ::pthread_setname_np(::pthread_self(), "qf-status-write");
        runWriter(std::move(stop));
    });
}

AgentStatusPublisher::~AgentStatusPublisher() { stop(false); }

std::string AgentStatusPublisher::publish(const Mutation& mutation) {
    std::string text;
    bool wasDirty = false;
    {
        std::lock_guard lock(lock_);
        mutation(status_);
        status_.updatedAt = dateFrom(clock_->now());
        text = status_.statusText;
        wasDirty = std::exchange(dirty_, true);
    }
    // A writer already told is still letting the burst settle; waking it for
    // every change of the burst would cost a thread switch each.
    if (!wasDirty) changed_.notify_one();
    return text;
}

std::string AgentStatusPublisher::publishPresentation(const std::vector<AgentPromptSession>& sessions,
                                               bool promptWindowVisible) {
    ++generation_;
    std::vector<QueuedEntry> queue;
    queue.reserve(sessions.size());
    for (const auto& session : sessions) {
        EntryKey key{
            .receivedAt = session.receivedAt,
            .selectedPreset = session.selectedPreset,
            .ruleSelection = session.ruleSelection,
            .reuseExistingSignerRule = session.reuseExistingSignerRule,
        };
        auto& cached = cache_[session.id()];
        if (!cached.entry || cached.key != key) {
            cached.entry = std::make_shared<const PromptAgentQueuedPromptSnapshot>(makeQueuedPromptSnapshot(session));
            cached.key = std::move(key);
        }
        cached.generation = generation_;
        queue.push_back(cached.entry);
    }
    // Answered prompts leave the cache; the sweep runs only when some did.
    if (cache_.size() > sessions.size()) {
        std::erase_if(cache_, [this](const auto& item) { return item.second.generation != generation_; });
    }

    const auto count = static_cast<std::int64_t>(sessions.size());
    std::optional<PromptAgentActivePromptSnapshot> active;
    if (!queue.empty()) active = makeActivePromptSnapshot(*queue.front(), count);
    std::string text;
    bool wasDirty = false;
    {
        std::lock_guard lock(lock_);
        status_.activePrompt = std::move(active);
        status_.activePromptCount = count;
        status_.promptWindowVisible = promptWindowVisible;
        queue_.swap(queue);
        status_.updatedAt = dateFrom(clock_->now());
        text = status_.statusText;
        wasDirty = std::exchange(dirty_, true);
    }
    if (!wasDirty) changed_.notify_one();
    return text;  // the previous queue is released here, outside the lock
}

PromptAgentStatusSnapshot AgentStatusPublisher::snapshot() const {
    std::lock_guard lock(lock_);
    return assembleLocked();
}

std::string AgentStatusPublisher::statusText() const {
    std::lock_guard lock(lock_);
    return status_.statusText;
}

PromptAgentStatusSnapshot AgentStatusPublisher::assembleLocked() const {
    PromptAgentStatusSnapshot snapshot = status_;
    snapshot.queuedPrompts.reserve(queue_.size());
    for (const auto& entry : queue_) snapshot.queuedPrompts.push_back(*entry);
    return snapshot;
}

void AgentStatusPublisher::stop(bool flushPending) {
    {
        std::lock_guard lock(lock_);
        if (stopped_) return;
        stopped_ = true;
    }
    writer_.request_stop();
    if (writer_.joinable()) writer_.join();
    if (!flushPending) return;
    std::optional<PromptAgentStatusSnapshot> pending;
    {
        std::lock_guard lock(lock_);
        if (dirty_) pending = assembleLocked();
        dirty_ = false;
    }
    if (pending) write(*pending);
}

void AgentStatusPublisher::runWriter(std::stop_token stop) {
    std::unique_lock lock(lock_);
    while (!stop.stop_requested()) {
        if (!changed_.wait(lock, stop, [this] { return dirty_; })) break;
        // A burst of answers (or a queue filling up) then costs one write.
        changed_.wait_for(lock, stop, writeDelay, [] { return false; });
        if (stop.stop_requested()) break;
        auto latest = assembleLocked();
        dirty_ = false;
        lock.unlock();
        write(latest);
        lock.lock();
    }
}

void AgentStatusPublisher::write(const PromptAgentStatusSnapshot& snapshot) const {
    if (auto saved = store_.saveWithoutSync(snapshot); !saved) {
        logger_.error("Failed to persist the prompt-agent status snapshot: %{public}s", saved.error());
    }
}

PromptAgentQueuedPromptSnapshot AgentStatusPublisher::makeQueuedPromptSnapshot(const AgentPromptSession& session) {
    const auto& context = session.request.context;
    return PromptAgentQueuedPromptSnapshot{
        .promptID = session.request.id,
        .host = context.host().value_or("unknown-host"),
        .port = context.port(),
        .processDisplayTitle = processDisplayTitle(session),
        .previewText = previewText(session),
    };
}

PromptAgentActivePromptSnapshot AgentStatusPublisher::makeActivePromptSnapshot(
    const PromptAgentQueuedPromptSnapshot& queued, std::int64_t queueCount) {
    return PromptAgentActivePromptSnapshot{
        .promptID = queued.promptID,
        .host = queued.host,
        .port = queued.port,
        .queueCount = queueCount,
        .processDisplayTitle = queued.processDisplayTitle,
        .previewText = queued.previewText,
    };
}

}  // namespace quillfort
