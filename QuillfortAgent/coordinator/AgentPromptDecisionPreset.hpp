// The six answers a user can give in the decision window, and their mapping to
// a rule action and scope.
#pragma once

#include <optional>
#include <string_view>

#include "contracts/FlowPromptMessages.hpp"
#include "model/EnumTraits.hpp"
#include "platform/ProcessInfo.hpp"

namespace quillfort {

enum class AgentPromptDecisionPreset { allowOnce, allowSession, allowPermanent, blockOnce, blockSession, blockPermanent };

template <>
struct EnumTraits<AgentPromptDecisionPreset> {
    using P = AgentPromptDecisionPreset;
    static constexpr std::array<std::pair<P, std::string_view>, 6> entries{{
        {P::allowOnce, "allowOnce"},
        {P::allowSession, "allowSession"},
        {P::allowPermanent, "allowPermanent"},
        {P::blockOnce, "blockOnce"},
        {P::blockSession, "blockSession"},
        {P::blockPermanent, "blockPermanent"},
    }};
};

namespace AgentPromptDecisionPresets {

[[nodiscard]] std::string_view title(AgentPromptDecisionPreset preset) noexcept;          // "Allow Once"
[[nodiscard]] std::string_view durationTitle(AgentPromptDecisionPreset preset) noexcept;  // "Once", "Session", "Always"
[[nodiscard]] RuleAction action(AgentPromptDecisionPreset preset) noexcept;
[[nodiscard]] RuleScope scope(AgentPromptDecisionPreset preset) noexcept;
[[nodiscard]] bool persist(AgentPromptDecisionPreset preset) noexcept;
[[nodiscard]] bool isOnce(AgentPromptDecisionPreset preset) noexcept;

// The preset for an action and scope; `ask` gives allowOnce whatever the scope.
[[nodiscard]] AgentPromptDecisionPreset preset(RuleAction action, RuleScope scope) noexcept;
// The camel-case preset standing at the same position as the kebab-case one.
[[nodiscard]] AgentPromptDecisionPreset fromAutomationPreset(FlowPromptAutomationPreset preset) noexcept;
// From "QUILLFORT_AGENT_AUTOMATION_RESPONSE": trimmed, lower-cased, one of the six kebab-case names.
[[nodiscard]] std::optional<AgentPromptDecisionPreset> automationPreset(const ProcessInfo& processInfo);

}  // namespace AgentPromptDecisionPresets

}  // namespace quillfort
