// A prompt waiting in the agent's queue with the user's current choice, and
// the record an answered prompt leaves in the recent-answers list.
#pragma once

#include <optional>
#include <string>

#include "QuillfortAgent/coordinator/AgentPromptDecisionPreset.hpp"
#include "contracts/FlowPromptMessages.hpp"
#include "model/Date.hpp"

namespace quillfort {

struct AgentPromptSession {
    FlowPromptRequest request;
    Date receivedAt{};
    AgentPromptDecisionPreset selectedPreset = AgentPromptDecisionPreset::allowOnce;
    std::optional<AgentPromptDecisionPreset> rememberedPreset;
    FlowPromptRuleSelection ruleSelection;
    std::optional<FlowPromptSignerChangeCandidate> signerChangeCandidate;
    std::optional<Rule> signerReuseTemplateRule;
    bool reuseExistingSignerRule = false;

    [[nodiscard]] const Uuid& id() const noexcept { return request.id; }

    // The rule that answering with the current choice would create: the signer
    // follows the exact-process choice, and a reused rule is rewritten to the
    // new signer instead of adding a new rule.
    [[nodiscard]] std::optional<Rule> suggestedRule(UuidSource& ids) const;
    [[nodiscard]] std::optional<Rule> suggestedRule() const;

    bool operator==(const AgentPromptSession&) const = default;
};

struct AgentResolvedPrompt {
    Uuid id;
    std::string title;       // "Resolved api.example.com" / "Auto-resolved api.example.com"
    std::string detail;      // "allow persistent for api.example.com"
    std::string resolvedAt;  // already formatted for display (medium time style)

    bool operator==(const AgentResolvedPrompt&) const = default;
};

}  // namespace quillfort
