#include "QuillfortAgent/host/AgentRuleBook.hpp"

#include <algorithm>
#include <utility>

#include <boost/asio/steady_timer.hpp>
#include <fmt/format.h>

#include "QuillfortAgent/host/BridgeQueue.hpp"
#include "QuillfortAgent/transports/DirectoryWatcher.hpp"
#include "contracts/FlowPromptResolution.hpp"
#include "contracts/QuillfortSharedContainer.hpp"

namespace quillfort {

struct AgentRuleBook::Worker {
    BridgeQueue queue;
    boost::asio::steady_timer timer{queue.context()};
    std::shared_ptr<DirectoryWatcher> watcher;
};

namespace {

std::string names(const std::vector<Rule>& rules) {
    std::string text;
    for (const auto& rule : rules) text += fmt::format("{}\"{}\" {}", text.empty() ? "" : ", ", rule.name,
                                                      rule.id.uppercaseString());
    return text;
}

const Rule* ruleWithID(const std::vector<Rule>& rules, const Uuid& id) {
    const auto found = std::ranges::find_if(rules, [&](const Rule& rule) { return rule.id == id; });
    return found == rules.end() ? nullptr : &*found;
}

}  // namespace

AgentRuleBook::Dependencies AgentRuleBook::standardDependencies(std::shared_ptr<FileSystem> fileSystem,
                                                                const ProcessInfo& processInfo,
                                                                std::shared_ptr<MainThreadExecutor> mainThread) {
    auto snapshot = QuillfortSharedContainer::ruleSnapshotURL(*fileSystem, std::nullopt);
    auto expiries = RuleExpiryStore::standardLocation(processInfo.environmentValue("XDG_CONFIG_HOME"),
                                                      fileSystem->currentHomeDirectory());
    return {std::move(fileSystem), std::move(snapshot), std::move(expiries), systemClock(), randomUuidSource(),
            std::move(mainThread)};
}

std::shared_ptr<AgentRuleBook> AgentRuleBook::make(Dependencies dependencies) {
    return std::shared_ptr<AgentRuleBook>(new AgentRuleBook(std::move(dependencies)));
}

AgentRuleBook::AgentRuleBook(Dependencies dependencies)
    : deps_(std::move(dependencies)),
      editor_(*deps_.fileSystem, deps_.snapshotURL),
      expiryStore_(*deps_.fileSystem, deps_.expiryStoreURL) {}

AgentRuleBook::~AgentRuleBook() {
    if (!worker_) return;
    worker_->queue.shutdown([this] {
        worker_->timer.cancel();
        if (worker_->watcher) worker_->watcher->cancel();
    });
}

// ---------------------------------------------------------------------------
// Start-up

void AgentRuleBook::start() {
    if (worker_) return;
    // Before any prompt is served, so that no rule of this run can be taken
    // for an earlier run's.
    if (auto removed = removeLeftoverSessionRules(); !removed)
        logger_.error("Could not remove the session rules of an earlier run: %{public}s", removed.error());
    if (auto removed = removeExpiredRules(); !removed)
        logger_.error("Could not remove the expired rules: %{public}s", removed.error());
    state_.set(read());

    worker_ = std::make_unique<Worker>();
    worker_->queue.post([weak = weak_from_this()] {
        if (auto self = weak.lock()) {
            self->watch();
            self->armTimer();
        }
    });
}

std::expected<void, std::string> AgentRuleBook::removeLeftoverSessionRules() {
    if (!deps_.snapshotURL || !deps_.fileSystem->exists(*deps_.snapshotURL)) return {};
    std::vector<Rule> removed;
    auto edited = editor_.edit(RuleChanges::removeSessionRules(removed), now());
    if (!edited) return std::unexpected(edited.error().description);
    if (!removed.empty())
        logger_.log("Removed %{public}s session rule(s) an earlier run left in the rule snapshot: %{public}s",
                    std::to_string(removed.size()), names(removed));
    return {};
}

// ---------------------------------------------------------------------------
// Expiries

std::expected<std::map<Uuid, Date>, std::string> AgentRuleBook::loadExpiries() {
    auto loaded = expiryStore_.loadMap();
    if (!loaded) return std::unexpected(loaded.error().description);
    return *loaded;
}

std::expected<void, std::string> AgentRuleBook::saveExpiries(const std::map<Uuid, Date>& expiries) {
    if (auto saved = expiryStore_.saveMap(expiries); !saved) return std::unexpected(saved.error().description);
    expiries_ = expiries;
    return {};
}

std::expected<void, std::string> AgentRuleBook::removeExpiredRules() {
    auto expiries = loadExpiries();
    if (!expiries) return std::unexpected(expiries.error());
    expiries_ = *expiries;
    const Date at = now();
    std::vector<Uuid> due;
    for (const auto& [id, end] : expiries_)
        if (end <= at) due.push_back(id);
    if (due.empty()) return {};

    std::vector<Rule> removed;
    auto edited = editor_.edit(
        [&](std::vector<Rule>& rules) -> std::expected<bool, std::string> {
            for (const auto& rule : rules)
                if (std::ranges::find(due, rule.id) != due.end()) removed.push_back(rule);
            return RuleChanges::removeAll(due)(rules);
        },
        at);
    if (!edited) return std::unexpected(edited.error().description);
    for (const auto& rule : removed)
        logger_.log("Rule \"%{public}s\" %{public}s expired at %{public}s and was removed from the rule snapshot.",
                    rule.name, rule.id.uppercaseString(), iso8601String(expiries_.at(rule.id)));
    auto kept = expiries_;
    for (const auto& id : due) kept.erase(id);
    return saveExpiries(kept);
}

std::expected<void, std::string> AgentRuleBook::applySetExpiry(const Uuid& id, std::optional<Date> expiresAt) {
    if (!deps_.expiryStoreURL) return std::unexpected("No configuration folder is known, so no rule can be timed.");
    const auto current = read();
    const Rule* rule = ruleWithID(current.rules, id);
    if (!rule) return std::unexpected(fmt::format("No rule {} in the rule snapshot.", id.uppercaseString()));
    auto expiries = loadExpiries();
    if (!expiries) return std::unexpected(expiries.error());
    if (expiresAt) {
        (*expiries)[id] = *expiresAt;
        logger_.log("Rule \"%{public}s\" %{public}s now ends at %{public}s.", rule->name, id.uppercaseString(),
                    iso8601String(*expiresAt));
    } else {
        expiries->erase(id);
        logger_.log("Rule \"%{public}s\" %{public}s no longer ends.", rule->name, id.uppercaseString());
    }
    if (auto saved = saveExpiries(*expiries); !saved) return saved;
    // An end already past takes the rule away now.
    return removeExpiredRules();
}

std::optional<Date> AgentRuleBook::nextExpiry() const {
    if (expiries_.empty()) return std::nullopt;
    return std::ranges::min_element(expiries_, {}, [](const auto& entry) { return entry.second; })->second;
}

// ---------------------------------------------------------------------------
// Edits

std::expected<void, std::string> AgentRuleBook::applyChange(const RuleChange& change, std::string_view what) {
    auto edited = editor_.edit(change, now());
    if (!edited) {
        logger_.error("Could not change the rules (%{public}s): %{public}s", what, edited.error().description);
        return std::unexpected(edited.error().description);
    }
    if (edited->written) logger_.log("Changed the rules: %{public}s.", what);
    return {};
}

AgentRuleBookState AgentRuleBook::read() {
    AgentRuleBookState state;
    state.loaded = true;
    if (deps_.snapshotURL) seenIdentity_ = deps_.fileSystem->fileIdentity(*deps_.snapshotURL).value_or(FileIdentity{});
    auto snapshot = editor_.snapshotURL() ? RuleSnapshotStore(*deps_.fileSystem, deps_.snapshotURL).loadIfPresent()
                                          : Result<std::optional<RuleSnapshotEnvelope>>{};
    if (!snapshot) {
        state.problem = snapshot.error().description;
    } else if (*snapshot) {
        state.rules = std::move((**snapshot).rules);
    }
    if (auto expiries = loadExpiries()) {
        expiries_ = *expiries;
    } else if (!state.problem) {
        state.problem = expiries.error();
    }
    for (const auto& [id, end] : expiries_)
        if (ruleWithID(state.rules, id)) state.expiries[id] = end;
    return state;
}

void AgentRuleBook::setEnabled(const Uuid& id, bool enabled, Done done) {
    run([this, id, enabled] {
        return applyChange(RuleChanges::setEnabled(id, enabled),
                           fmt::format("{} rule {}", enabled ? "enabled" : "disabled", id.uppercaseString()));
    },
        std::move(done));
}

void AgentRuleBook::setAction(const Uuid& id, RuleAction action, Done done) {
    run([this, id, action] {
        return applyChange(RuleChanges::setAction(id, action),
                           fmt::format("rule {} now has the action {}", id.uppercaseString(), rawValue(action)));
    },
        std::move(done));
}

void AgentRuleBook::remove(const Uuid& id, Done done) {
    run([this, id] { return applyChange(RuleChanges::remove(id), fmt::format("deleted rule {}", id.uppercaseString())); },
        std::move(done));
}

void AgentRuleBook::restore(const Rule& rule, std::size_t index, std::optional<Date> expiresAt, Done done) {
    run([this, rule, index, expiresAt]() -> std::expected<void, std::string> {
        if (auto restored = applyChange(RuleChanges::restore(rule, index),
                                        fmt::format("restored deleted rule {}", rule.id.uppercaseString()));
            !restored)
            return restored;
        if (expiresAt) return applySetExpiry(rule.id, expiresAt);
        return {};
    },
        std::move(done));
}

void AgentRuleBook::setExpiry(const Uuid& id, std::optional<Date> expiresAt, Done done) {
    run([this, id, expiresAt] { return applySetExpiry(id, expiresAt); }, std::move(done));
}

void AgentRuleBook::expireAfter(const Uuid& id, std::optional<std::chrono::seconds> after, Done done) {
    run([this, id, after] {
        return applySetExpiry(id, after ? std::optional<Date>(now() + *after) : std::nullopt);
    },
        std::move(done));
}

void AgentRuleBook::persistAnswer(const FlowPromptRequest& request, const FlowPromptResponse& response, Done done) {
    run([this, request, response] {
        const Date at = now();
        return applyChange(
            [&](std::vector<Rule>& rules) -> std::expected<bool, std::string> {
                const auto outcome =
                    FlowPromptResolution::resolve(request, response, RuleSnapshotEnvelope{at, rules},
                                                  /*persistSessionRules=*/true, RuleOrigin::promptResolved, at,
                                                  *deps_.uuids);
                if (!outcome.updatedSnapshot || outcome.updatedSnapshot->rules == rules) return false;
                rules = outcome.updatedSnapshot->rules;
                return true;
            },
            fmt::format("added a rule made from a flow to {}", request.context.host().value_or("?")));
    },
        std::move(done));
}

// ---------------------------------------------------------------------------
// The queue

void AgentRuleBook::run(std::function<std::expected<void, std::string>()> step, Done done) {
    auto task = [weak = weak_from_this(), step = std::move(step), done = std::move(done)]() mutable {
        auto self = weak.lock();
        if (!self) return;
        auto result = step();
        self->armTimer();
        self->publish(self->read(), [done = std::move(done), result = std::move(result)] {
            if (done) done(result);
        });
    };
    // Before start() (tests, a headless agent that never starts it) the step
    // runs at once on the calling thread.
    if (!worker_) {
        task();
        return;
    }
    worker_->queue.post(std::move(task));
}

void AgentRuleBook::publish(AgentRuleBookState state, std::function<void()> then) {
    deps_.mainThread->post([weak = weak_from_this(), state = std::move(state), then = std::move(then)]() mutable {
        if (auto self = weak.lock())
            if (self->state_.value() != state) self->state_.set(std::move(state));
        then();
    });
}

void AgentRuleBook::watch() {
    if (!deps_.snapshotURL) return;
    const auto folder = deps_.snapshotURL->parent_path();
    if (auto made = deps_.fileSystem->createDirectories(folder); !made) {
        logger_.error("Cannot follow the rule snapshot: %{public}s", made.error());
        return;
    }
    auto watcher = DirectoryWatcher::make(worker_->queue.context(), {folder});
    if (!watcher) {
        logger_.error("Cannot follow the rule snapshot: %{public}s", watcher.error());
        return;
    }
    worker_->watcher = *watcher;
    worker_->watcher->start([weak = weak_from_this()] {
        if (auto self = weak.lock()) self->onFileChanged();
    });
    // A writer may have replaced the snapshot between start()'s read and the
    // watch: look once, so that change is not left until the next one.
    onFileChanged();
}

void AgentRuleBook::onFileChanged() {
    // The filter writes its flow events beside the snapshot twice a second;
    // only a snapshot that really changed is read again.
    const auto identity = deps_.fileSystem->fileIdentity(*deps_.snapshotURL).value_or(FileIdentity{});
    if (seenIdentity_ && identity == *seenIdentity_) return;
    publish(read(), [] {});
    armTimer();
}

void AgentRuleBook::armTimer() {
    if (!worker_) return;
    worker_->timer.cancel();
    const auto next = nextExpiry();
    if (!next) return;
    const auto wait = std::max(std::chrono::system_clock::duration::zero(), *next - deps_.clock->now());
    // The system clock may jump (suspend, a time change): wake at least hourly to look again.
    worker_->timer.expires_after(std::min<std::chrono::steady_clock::duration>(
        std::chrono::duration_cast<std::chrono::steady_clock::duration>(wait) + std::chrono::seconds(1),
        std::chrono::hours(1)));
    worker_->timer.async_wait([weak = weak_from_this()](const boost::system::error_code& code) {
        if (code) return;
        auto self = weak.lock();
        if (!self) return;
        if (auto removed = self->removeExpiredRules(); !removed)
            self->logger_.error("Could not remove the expired rules: %{public}s", removed.error());
        self->publish(self->read(), [] {});
        self->armTimer();
    });
}

}  // namespace quillfort
