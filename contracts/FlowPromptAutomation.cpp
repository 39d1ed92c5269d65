#include "contracts/FlowPromptAutomation.hpp"

#include <ostream>

#include "contracts/FlowPromptRuleBuilder.hpp"
#include "model/Text.hpp"

namespace quillfort {
namespace {

constexpr const char* kResponseVariable = "QUILLFORT_AGENT_AUTOMATION_RESPONSE";
constexpr const char* kHostVariable = "QUILLFORT_AUTOMATION_RULE_HOST";
constexpr const char* kPortVariable = "QUILLFORT_AUTOMATION_RULE_PORT";

std::optional<std::string_view> lookup(const std::map<std::string, std::string>& environment, const char* name) {
    auto found = environment.find(name);
    if (found == environment.end()) return std::nullopt;
    return found->second;
}

}  // namespace

RuleAction action(FlowPromptAutomationPreset preset) {
    switch (preset) {
        case FlowPromptAutomationPreset::allowOnce:
        case FlowPromptAutomationPreset::allowSession:
        case FlowPromptAutomationPreset::allowPermanent: return RuleAction::allow;
        case FlowPromptAutomationPreset::blockOnce:
        case FlowPromptAutomationPreset::blockSession:
        case FlowPromptAutomationPreset::blockPermanent: return RuleAction::drop;
    }
    return RuleAction::drop;
}

RuleScope scope(FlowPromptAutomationPreset preset) {
    switch (preset) {
        case FlowPromptAutomationPreset::allowOnce:
        case FlowPromptAutomationPreset::blockOnce: return RuleScope::temporary;
        case FlowPromptAutomationPreset::allowSession:
        case FlowPromptAutomationPreset::blockSession: return RuleScope::session;
        case FlowPromptAutomationPreset::allowPermanent:
        case FlowPromptAutomationPreset::blockPermanent: return RuleScope::persistent;
    }
    return RuleScope::temporary;
}

FlowPromptResponse makeResponse(FlowPromptAutomationPreset preset, const FlowPromptRequest& request,
                                UuidSource& ids) {
    FlowPromptResponse response;
    response.promptID = request.id;
    response.action = action(preset);
    response.scope = scope(preset);
    response.persist = response.scope == RuleScope::persistent;
    const auto selection = FlowPromptRuleBuilder::defaultSelection(request);
    if (response.scope != RuleScope::temporary) response.ruleSelection = selection;
    response.suggestedRule =
        FlowPromptRuleBuilder::buildSuggestedRule(request, response.action, response.scope, selection, ids);
    return response;
}

std::optional<FlowPromptAutomationFocus> FlowPromptAutomationFocus::make(std::optional<std::string_view> host,
                                                                         std::optional<std::uint16_t> port) {
    if (!host) return std::nullopt;
    std::string normalized = text::normalizedHost(*host);
    if (normalized.empty()) return std::nullopt;
    return FlowPromptAutomationFocus{std::move(normalized), port};
}

std::optional<FlowPromptAutomationFocus> FlowPromptAutomationFocus::fromEnvironment(
    const std::map<std::string, std::string>& environment) {
    std::optional<std::uint16_t> port;
    if (auto raw = lookup(environment, kPortVariable)) port = text::parseUInt16(text::trimmed(*raw));
    return make(lookup(environment, kHostVariable), port);
}

bool FlowPromptAutomationFocus::matches(const FlowPromptRequest& request) const {
    const auto requestHost = request.context.host();
    if (!requestHost) return false;
    const std::string normalized = text::normalizedHost(*requestHost);
    if (normalized.empty() || normalized != host) return false;
    if (!port) return true;
    const auto requestPort = request.context.port();
    return requestPort && *requestPort == *port;
}

std::optional<FlowPromptAutomationDirective> FlowPromptAutomationDirective::fromEnvironment(
    const std::map<std::string, std::string>& environment) {
    auto raw = lookup(environment, kResponseVariable);
    if (!raw) return std::nullopt;
    auto preset = fromRawValue<FlowPromptAutomationPreset>(text::lowercased(text::trimmed(*raw)));
    if (!preset) return std::nullopt;
    return FlowPromptAutomationDirective{*preset, FlowPromptAutomationFocus::fromEnvironment(environment)};
}

bool FlowPromptAutomationDirective::matches(const FlowPromptRequest& request) const {
    return !focus || focus->matches(request);
}

std::optional<FlowPromptResponse> FlowPromptAutomationDirective::makeResponseIfMatch(const FlowPromptRequest& request,
                                                                                     UuidSource& ids) const {
    if (!matches(request)) return std::nullopt;
    return makeResponse(preset, request, ids);
}

std::ostream& operator<<(std::ostream& out, const FlowPromptAutomationFocus& focus) {
    out << focus.host;
    if (focus.port) out << ':' << *focus.port;
    return out;
}

std::ostream& operator<<(std::ostream& out, const FlowPromptAutomationDirective& directive) {
    out << rawValue(directive.preset);
    if (directive.focus) out << " for " << *directive.focus;
    return out;
}

}  // namespace quillfort
