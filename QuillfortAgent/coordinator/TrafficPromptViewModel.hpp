// Everything the decision window, the idle view and the status view show, as
// plain functions of a session or of the coordinator's published values. Every
// front end (the Qt window, the terminal front end over D-Bus) takes its texts
// from here, so that they read the same everywhere and are tested once.
#pragma once

#include <array>
#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "QuillfortAgent/coordinator/AgentPromptSession.hpp"
#include "contracts/FlowPromptMessages.hpp"
#include "model/Rule.hpp"

namespace quillfort {

// One entry of the Host picker.
struct HostScopeOption {
    std::string id;     // "any", "suffix:.example.net", "exact:api.example.net"
    std::string title;  // "Any host", "*.example.net", "api.example.net"
    FlowPromptHostMatchMode mode = FlowPromptHostMatchMode::none;
    std::optional<std::string> pattern;

    bool operator==(const HostScopeOption&) const = default;
};

// One of the three Duration chips.
struct DurationChoice {
    RuleScope scope = RuleScope::temporary;
    std::string_view title;  // "Once", "Session", "Always"
};

// Every text the prompt view derives from its session, computed in one pass.
struct TrafficPromptTexts {
    std::string host;             // "api.example.com", "unknown"
    std::string port;             // "443", "0"
    std::string proto;            // "TCP", "UDP", "UNKNOWN"
    std::string headerTitle;      // "api.example.com:443"
    std::string directionTitle;   // "Outbound"
    std::string processTitle;     // bundle id, else executable name, else "Unknown"
    std::string processPath;      // executable path, else "No path"
    std::string signerTitle;      // signing id, else "unknown"
    std::string tagsTitle;        // "shell, terminal", else "none"
    std::string ancestorSummary;  // "com.apple.Terminal → login → zsh", else "none"
    std::optional<std::string> rememberedTitle;      // "Remembered: Allow Session"
    std::optional<std::string> signerChangeSummary;  // present with a signer-change candidate
    std::string previewText;                         // the rule an answer would write
    std::vector<HostScopeOption> hostScopeOptions;
    std::string selectedHostScopeID;
    std::string durationTitle;  // "Once", "Session", "Always"
    std::string blockTitle;     // "Block Always"
    std::string allowTitle;     // "Allow Always"
    bool signerChoiceEnabled = false;  // the Reuse/Separate chips mean nothing for a one-time answer

    bool operator==(const TrafficPromptTexts&) const = default;
};

namespace TrafficPromptViewModel {

inline constexpr std::string_view anyHostScopeID = "any";
inline constexpr std::string_view anyTag = "any";      // "Any port" / "Any protocol"
inline constexpr std::string_view exactTag = "exact";  // the flow's own port / protocol

[[nodiscard]] std::string host(const AgentPromptSession& session);
[[nodiscard]] std::string port(const AgentPromptSession& session);
[[nodiscard]] std::string proto(const AgentPromptSession& session);
[[nodiscard]] std::string processTitle(const AgentPromptSession& session);
[[nodiscard]] std::string processPath(const AgentPromptSession& session);
[[nodiscard]] std::string signerTitle(const AgentPromptSession& session);
[[nodiscard]] std::string tagsTitle(const AgentPromptSession& session);
[[nodiscard]] std::string ancestorSummary(const AgentPromptSession& session);
[[nodiscard]] std::optional<std::string> signerChangeSummary(const AgentPromptSession& session);
[[nodiscard]] std::string previewText(const AgentPromptSession& session);
[[nodiscard]] std::string previewText(const std::optional<Rule>& suggestedRule);

// Short forms of rule conditions as the preview shows them ("exec=/usr/bin/curl", "port=443").
[[nodiscard]] std::string conditionText(const RuleSubject& subject);
[[nodiscard]] std::string conditionText(const RuleDestination& destination);

// True for an IP literal as the Host picker sees it: only digits, "." and ":" (empty included).
[[nodiscard]] bool isLiteralAddress(std::string_view host) noexcept;
[[nodiscard]] std::vector<HostScopeOption> hostScopeOptions(const AgentPromptSession& session);
[[nodiscard]] std::string selectedHostScopeID(const AgentPromptSession& session);
// The session's selection with the option `id` chosen in the Host picker; nothing for an unknown id.
[[nodiscard]] std::optional<FlowPromptRuleSelection> selectingHostScope(const AgentPromptSession& session,
                                                                       std::string_view id);

// The Port and Protocol pickers: "exact" exactly when the facet is included.
[[nodiscard]] std::string_view facetTag(bool included) noexcept;
[[nodiscard]] bool facetIncluded(std::string_view tag) noexcept;

// Duration chips in their order, and the preset a chip or an answer button picks.
[[nodiscard]] const std::array<DurationChoice, 3>& durationChoices() noexcept;
[[nodiscard]] AgentPromptDecisionPreset withDuration(AgentPromptDecisionPreset current, RuleScope scope) noexcept;
[[nodiscard]] AgentPromptDecisionPreset answering(AgentPromptDecisionPreset current, RuleAction action) noexcept;
[[nodiscard]] std::string allowTitle(AgentPromptDecisionPreset selected);  // "Allow Once"
[[nodiscard]] std::string blockTitle(AgentPromptDecisionPreset selected);  // "Block Always"

// The queue-wide parts of the prompt view: the "3 pending" pill and "Cancel All"
// appear only from two queued prompts on.
[[nodiscard]] std::optional<std::string> pendingPillText(std::size_t queuedCount);
[[nodiscard]] bool showsCancelAll(std::size_t queuedCount) noexcept;

// Under the rule preview, how many other queued prompts the current choice
// would answer too (the coordinator's alsoAnsweredCount): "Also answers 1 other
// pending prompt", "Also answers 3 other pending prompts"; nothing for none.
[[nodiscard]] std::optional<std::string> alsoAnswersText(std::size_t otherPrompts);

[[nodiscard]] TrafficPromptTexts derivedTexts(const AgentPromptSession& session);
// The desktop notification of a prompt that arrives while the user works
// elsewhere: "curl wants to connect to api.example.com", and
// "api.example.com:443 over TCP" with "2 more prompts wait." below when others do.
[[nodiscard]] std::string notificationSummary(const AgentPromptSession& session);
[[nodiscard]] std::string notificationBody(const AgentPromptSession& session, std::size_t queuedCount);


}  // namespace TrafficPromptViewModel

// The idle view and the status view: the few texts that are not fixed captions.
namespace AgentStatusViewModel {

inline constexpr std::string_view idleTitle = "Waiting for traffic decisions";
inline constexpr std::string_view emptyQueueText = "No queued prompts.";
inline constexpr std::string_view noResponsesText = "No responses yet.";

[[nodiscard]] std::string stubsText(bool stubExtensionsEnabled);  // "stubs: on" / "stubs: off"
[[nodiscard]] std::string activePromptsTitle(std::size_t count);  // "Active Prompts (2)"
// One row of the status view's queue: "api.example.com:443" and "curl" (or "Unknown").
[[nodiscard]] std::string rowDestination(const AgentPromptSession& session);
[[nodiscard]] std::string rowProcess(const AgentPromptSession& session);

}  // namespace AgentStatusViewModel

}  // namespace quillfort
