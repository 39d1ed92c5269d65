// The heart of the agent: receives prompt requests from the transports,
// answers them at once when an automation directive says so, otherwise queues
// them as sessions until the user (or an automation command) decides, then
// sends the answer through the reply callback that came with the request.
// Everything here runs on the main thread; transports hop there first.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "QuillfortAgent/coordinator/AgentPromptSession.hpp"
#include "QuillfortAgent/coordinator/Observable.hpp"
#include "contracts/FlowPromptAutomation.hpp"
#include "model/Rule.hpp"
#include "platform/Clock.hpp"
#include "platform/FileSystem.hpp"
#include "platform/ProcessInfo.hpp"
#include "platform/UserDefaults.hpp"

namespace quillfort {

// The rules of the shared rule snapshot as they are now; a snapshot that cannot
// be read counts as no rules. Implementations may cache on the file's identity.
// The rules are shared and never changed once handed out, so a snapshot of
// ten thousand rules is not copied for every new prompt.
class RuleSnapshotReader {
public:
    using Rules = std::shared_ptr<const std::vector<Rule>>;

    virtual ~RuleSnapshotReader() = default;
    // Never null.
    [[nodiscard]] virtual Rules currentRules() = 0;
};

class AgentPromptCoordinator {
public:
    // Called with a response and no error text by everything the coordinator answers.
    using ReplyCallback = std::function<void(std::optional<FlowPromptResponse>, std::optional<std::string>)>;

    struct Dependencies {
        ProcessInfo processInfo;                       // environment for the directive, focus and previews
        std::shared_ptr<UserDefaults> userDefaults;    // remembered choice and preview settings
        std::shared_ptr<RuleSnapshotReader> rules;     // for signer-change candidates
        std::shared_ptr<FileSystem> fileSystem;        // to locate the listener manifest for display
        std::shared_ptr<Clock> clock;
        std::shared_ptr<UuidSource> uuids;
        // Formats a resolved-at time for display; defaults to the user's locale, medium time style.
        std::function<std::string(std::chrono::system_clock::time_point)> formatTime;
    };

    explicit AgentPromptCoordinator(Dependencies dependencies);
    ~AgentPromptCoordinator();
    AgentPromptCoordinator(const AgentPromptCoordinator&) = delete;
    AgentPromptCoordinator& operator=(const AgentPromptCoordinator&) = delete;

    // Published state; observers receive every change.
    [[nodiscard]] Observable<std::vector<AgentPromptSession>>& activePrompts() noexcept;
    [[nodiscard]] Observable<std::vector<AgentResolvedPrompt>>& recentResponses() noexcept;
    [[nodiscard]] Observable<std::string>& listenerStatus() noexcept;
    [[nodiscard]] Observable<std::string>& endpointPath() noexcept;
    [[nodiscard]] Observable<bool>& promptWindowVisible() noexcept;

    void receivePrompt(FlowPromptRequest request, ReplyCallback reply);
    // A prompt the user asked for (a rule made from a flow the filter already
    // decided): no automation answers it, it goes to the front of the queue
    // with `preset` chosen, and its answer goes to `reply` alone.
    void receivePromptFirst(FlowPromptRequest request, AgentPromptDecisionPreset preset, ReplyCallback reply);
    void resolvePrompt(const Uuid& id);
    void resolvePrompt(const Uuid& id, AgentPromptDecisionPreset preset);
    void cancelPrompt(const Uuid& id);
    void cancelAllPrompts();
    void recordAutomatedResolution(const FlowPromptRequest& request, const FlowPromptResponse& response);
    // For an answer given outside the queue (an automation directive on a
    // transport): every queued prompt that its lasting rule decides is answered
    // with it too, recorded as automated. Nothing for a one-time answer.
    void resolvePromptsDecidedBy(const FlowPromptResponse& response);

    // How many other queued prompts answering `id` with its current preset and
    // selection would answer too; 0 for a one-time choice or an unknown id.
    [[nodiscard]] std::size_t alsoAnsweredCount(const Uuid& id) const;
    void updateListenerStatus(std::string text);

    // What the decision window changes while the user works on a prompt.
    void setSelectedPreset(const Uuid& id, AgentPromptDecisionPreset preset);
    void setRuleSelection(const Uuid& id, FlowPromptRuleSelection selection);
    void setReuseExistingSignerRule(const Uuid& id, bool reuse);

    [[nodiscard]] static FlowPromptResponse makeResponse(const FlowPromptRequest& request,
                                                         AgentPromptDecisionPreset preset,
                                                         const FlowPromptRuleSelection& ruleSelection,
                                                         const std::optional<Rule>& suggestedRule,
                                                         UuidSource& ids);

    [[nodiscard]] std::string menuBarSymbol() const;  // "shield.lefthalf.filled" / "shield"
    [[nodiscard]] std::string statusSummary() const;  // "No active prompts", "3 prompts awaiting a decision"

    // Synthetic prompts for looking at the window without a filter.
    void seedPreviewPromptIfRequested(const ProcessInfo& processInfo);
    [[nodiscard]] std::int64_t previewPromptQueueCount(const ProcessInfo& processInfo) const;

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace quillfort
