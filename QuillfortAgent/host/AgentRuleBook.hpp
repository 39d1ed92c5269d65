// The agent's side of the shared rules: what the rules view shows and the one
// way every change to them goes (the views, the session bus, rules made from
// the network view). Changes run on a queue of its own, each under the
// snapshot's lock on the file as it is at that moment, and the state that
// follows comes back to the main thread. It also keeps the ends of timed rules
// and removes each rule from the snapshot when its time comes.
#pragma once

#include <chrono>
#include <cstddef>
#include <expected>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "QuillfortAgent/coordinator/Observable.hpp"
#include "QuillfortAgent/host/MainThreadExecutor.hpp"
#include "contracts/FlowPromptMessages.hpp"
#include "contracts/RuleExpiryStore.hpp"
#include "contracts/RuleSnapshotEditor.hpp"
#include "model/Rule.hpp"
#include "platform/Clock.hpp"
#include "platform/FileSystem.hpp"
#include "platform/ProcessInfo.hpp"
#include "support/QuillfortLogger.hpp"

namespace quillfort {

struct AgentRuleBookState {
    std::vector<Rule> rules;              // the snapshot's rules, in its order
    std::map<Uuid, Date> expiries;        // ends of rules in `rules`
    std::optional<std::string> problem;   // why the snapshot could not be read
    bool loaded = false;                  // false until the first look at the file

    bool operator==(const AgentRuleBookState&) const = default;
};

class AgentRuleBook : public std::enable_shared_from_this<AgentRuleBook> {
public:
    struct Dependencies {
        std::shared_ptr<FileSystem> fileSystem;
        std::optional<std::filesystem::path> snapshotURL;     // none: there are no rules
        std::optional<std::filesystem::path> expiryStoreURL;  // none: no rule can be timed
        std::shared_ptr<Clock> clock;
        std::shared_ptr<UuidSource> uuids;
        std::shared_ptr<MainThreadExecutor> mainThread;
    };
    // The shared snapshot and $XDG_CONFIG_HOME/quillfort/rule-expiries.json.
    [[nodiscard]] static Dependencies standardDependencies(std::shared_ptr<FileSystem> fileSystem,
                                                           const ProcessInfo& processInfo,
                                                           std::shared_ptr<MainThreadExecutor> mainThread);
    [[nodiscard]] static std::shared_ptr<AgentRuleBook> make(Dependencies dependencies);
    ~AgentRuleBook();
    AgentRuleBook(const AgentRuleBook&) = delete;
    AgentRuleBook& operator=(const AgentRuleBook&) = delete;

    // Main thread, once, by the agent that holds the single-instance lock and
    // before it serves prompts: removes the session rules an earlier run left
    // and the rules whose time passed while no agent ran, then follows the
    // file and keeps the timers.
    void start();

    // Main thread.
    [[nodiscard]] Observable<AgentRuleBookState>& state() noexcept { return state_; }

    // Each runs on the rule queue; `done` runs on the main thread after the
    // state has been published, with the reason when nothing could be changed.
    using Done = std::function<void(std::expected<void, std::string>)>;
    void setEnabled(const Uuid& id, bool enabled, Done done = {});
    void setAction(const Uuid& id, RuleAction action, Done done = {});
    void remove(const Uuid& id, Done done = {});
    // Undo of a removal: the rule goes back at `index` with its end, if it had one.
    void restore(const Rule& rule, std::size_t index, std::optional<Date> expiresAt, Done done = {});
    // Nothing: the rule never ends.
    void setExpiry(const Uuid& id, std::optional<Date> expiresAt, Done done = {});
    // Ends the rule `after` from now on the book's clock; nothing: never.
    void expireAfter(const Uuid& id, std::optional<std::chrono::seconds> after, Done done = {});
    // The rule of an answer given outside the filter's prompts (a rule made
    // from the network view), resolved exactly as a prompt's answer.
    void persistAnswer(const FlowPromptRequest& request, const FlowPromptResponse& response, Done done = {});

    // --- The steps the queue runs; synchronous, for one thread at a time ---------
    // (public so that tests drive them with their own clock and no queue)
    [[nodiscard]] std::expected<void, std::string> removeLeftoverSessionRules();
    [[nodiscard]] std::expected<void, std::string> removeExpiredRules();
    [[nodiscard]] std::expected<void, std::string> applySetExpiry(const Uuid& id, std::optional<Date> expiresAt);
    [[nodiscard]] std::expected<void, std::string> applyChange(const RuleChange& change, std::string_view what);
    // The rules and ends as they are on disk now.
    [[nodiscard]] AgentRuleBookState read();
    // The earliest end still to come, if any.
    [[nodiscard]] std::optional<Date> nextExpiry() const;

private:
    explicit AgentRuleBook(Dependencies dependencies);
    struct Worker;

    void run(std::function<std::expected<void, std::string>()> step, Done done);
    void publish(AgentRuleBookState state, std::function<void()> then);
    void watch();
    void armTimer();
    void onFileChanged();
    [[nodiscard]] Date now() const { return dateFrom(deps_.clock->now()); }
    [[nodiscard]] std::expected<std::map<Uuid, Date>, std::string> loadExpiries();
    [[nodiscard]] std::expected<void, std::string> saveExpiries(const std::map<Uuid, Date>& expiries);

    Dependencies deps_;
    Logger logger_{QuillfortLogCategory::agent};
    RuleSnapshotEditor editor_;
    RuleExpiryStore expiryStore_;
    std::optional<FileIdentity> seenIdentity_;  // of the snapshot last read (queue)
    std::map<Uuid, Date> expiries_;             // (queue)
    Observable<AgentRuleBookState> state_;      // (main thread)
    std::unique_ptr<Worker> worker_;            // made by start()
};

}  // namespace quillfort
