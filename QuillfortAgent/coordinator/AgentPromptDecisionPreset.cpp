#include "QuillfortAgent/coordinator/AgentPromptDecisionPreset.hpp"

#include "model/Text.hpp"

namespace quillfort::AgentPromptDecisionPresets {

namespace {
using P = AgentPromptDecisionPreset;
constexpr const char* kResponseVariable = "QUILLFORT_AGENT_AUTOMATION_RESPONSE";
}  // namespace

std::string_view title(AgentPromptDecisionPreset preset) noexcept {
    switch (preset) {
        case P::allowOnce:
            return "Allow Once";
        case P::allowSession:
            return "Allow Session";
        case P::allowPermanent:
            return "Allow Permanently";
        case P::blockOnce:
            return "Block Once";
        case P::blockSession:
            return "Block Session";
        case P::blockPermanent:
            return "Block Permanently";
    }
    return {};
}

std::string_view durationTitle(AgentPromptDecisionPreset preset) noexcept {
    switch (scope(preset)) {
        case RuleScope::temporary:
            return "Once";
        case RuleScope::session:
            return "Session";
        case RuleScope::persistent:
            return "Always";
    }
    return {};
}

RuleAction action(AgentPromptDecisionPreset preset) noexcept {
    switch (preset) {
        case P::allowOnce:
        case P::allowSession:
        case P::allowPermanent:
            return RuleAction::allow;
        case P::blockOnce:
        case P::blockSession:
        case P::blockPermanent:
            return RuleAction::drop;
    }
    return RuleAction::drop;
}

RuleScope scope(AgentPromptDecisionPreset preset) noexcept {
    switch (preset) {
        case P::allowOnce:
        case P::blockOnce:
            return RuleScope::temporary;
        case P::allowSession:
        case P::blockSession:
            return RuleScope::session;
        case P::allowPermanent:
        case P::blockPermanent:
            return RuleScope::persistent;
    }
    return RuleScope::temporary;
}

bool persist(AgentPromptDecisionPreset preset) noexcept {
    return scope(preset) == RuleScope::persistent;
}

bool isOnce(AgentPromptDecisionPreset preset) noexcept {
    return scope(preset) == RuleScope::temporary;
}

AgentPromptDecisionPreset preset(RuleAction action, RuleScope scope) noexcept {
    if (action == RuleAction::drop) {
        switch (scope) {
            case RuleScope::temporary:
                return P::blockOnce;
            case RuleScope::session:
                return P::blockSession;
            case RuleScope::persistent:
                return P::blockPermanent;
        }
    }
    if (action == RuleAction::allow) {
        switch (scope) {
            case RuleScope::temporary:
                return P::allowOnce;
            case RuleScope::session:
                return P::allowSession;
            case RuleScope::persistent:
                return P::allowPermanent;
        }
    }
    // `ask` has no answer of its own in the window; the safest default is a one-time allow.
    return P::allowOnce;
}

AgentPromptDecisionPreset fromAutomationPreset(FlowPromptAutomationPreset preset) noexcept {
    return allCases<AgentPromptDecisionPreset>()[caseIndex(preset)];
}

std::optional<AgentPromptDecisionPreset> automationPreset(const ProcessInfo& processInfo) {
    const auto raw = processInfo.environmentValue(kResponseVariable);
    if (!raw) return std::nullopt;
    const auto parsed = fromRawValue<FlowPromptAutomationPreset>(text::lowercased(text::trimmed(*raw)));
    if (!parsed) return std::nullopt;
    return fromAutomationPreset(*parsed);
}

}  // namespace quillfort::AgentPromptDecisionPresets
