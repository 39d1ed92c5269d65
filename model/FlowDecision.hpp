// The verdict the filter reaches for one flow, the user's policy for flows no
// rule decides, and the test for drops that came from a prompt.
#pragma once

#include <optional>
#include <string>

#include "model/Json.hpp"

namespace quillfort {

enum class FlowDecisionAction { allow, drop, pause, prompt, error };
template <>
struct EnumTraits<FlowDecisionAction> {
    static constexpr std::array<std::pair<FlowDecisionAction, std::string_view>, 5> entries{{
        {FlowDecisionAction::allow, "allow"},
        {FlowDecisionAction::drop, "drop"},
        {FlowDecisionAction::pause, "pause"},
        {FlowDecisionAction::prompt, "prompt"},
        {FlowDecisionAction::error, "error"},
    }};
};

enum class UnknownTrafficMode { alerting, permissive, blocking };
template <>
struct EnumTraits<UnknownTrafficMode> {
    static constexpr std::array<std::pair<UnknownTrafficMode, std::string_view>, 3> entries{{
        {UnknownTrafficMode::alerting, "alerting"},
        {UnknownTrafficMode::permissive, "permissive"},
        {UnknownTrafficMode::blocking, "blocking"},
    }};
};

struct FlowDecision {
    FlowDecisionAction action = FlowDecisionAction::allow;
    std::string reasonCode;  // lower-case words joined by "_", e.g. prompt_resolved_drop_session_rule
    std::optional<Uuid> matchedRuleID;
    std::optional<Uuid> promptID;
    double latencyMs = 0;

    bool operator==(const FlowDecision&) const = default;
};

template <>
struct JsonFields<FlowDecision> {
    static constexpr auto fields = std::tuple{
        jsonField("action", &FlowDecision::action),
        jsonField("reasonCode", &FlowDecision::reasonCode),
        jsonField("matchedRuleID", &FlowDecision::matchedRuleID),
        jsonField("promptID", &FlowDecision::promptID),
        jsonField("latencyMs", &FlowDecision::latencyMs),
    };
};

namespace FlowDecisionShadowing {
// A drop that a prompt answer (or the prompt agent itself) produced; the filter
// hides these when prompt-drop shadowing is on.
[[nodiscard]] bool shouldShadowPromptDrop(const FlowDecision& decision) noexcept;
}  // namespace FlowDecisionShadowing

}  // namespace quillfort
