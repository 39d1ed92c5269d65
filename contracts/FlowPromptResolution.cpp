#include "contracts/FlowPromptResolution.hpp"

#include <string>
#include <string_view>

#include "contracts/FlowPromptRuleBuilder.hpp"

namespace quillfort::FlowPromptResolution {
namespace {

// The rule the answer leaves behind, before merging; nothing for answers that
// only decide this one flow.
std::optional<Rule> persistedRuleFor(const FlowPromptRequest& request, const FlowPromptResponse& response,
                                     bool persistSessionRules, RuleOrigin origin, UuidSource& ids) {
    if (response.scope == RuleScope::temporary) return std::nullopt;
    if (response.scope == RuleScope::session && !persistSessionRules) return std::nullopt;

    std::optional<Rule> rule = response.suggestedRule;
    if (!rule && response.ruleSelection) {
        rule = FlowPromptRuleBuilder::buildSuggestedRule(request, response.action, response.scope,
                                                         *response.ruleSelection, ids);
    }
    if (!rule) return std::nullopt;

    // The answer, not whatever the rule was built with, says what the rule does.
    rule->action = response.action;
    rule->scope = response.scope;
    rule->origin = origin;
    if (rule->priority == 0) rule->priority = defaultPromptRulePriority;
    return rule;
}

FlowDecisionAction decisionActionFor(RuleAction action) {
    switch (action) {
        case RuleAction::allow:
            return FlowDecisionAction::allow;
        case RuleAction::drop:
            return FlowDecisionAction::drop;
        case RuleAction::ask:
            return FlowDecisionAction::prompt;
    }
    return FlowDecisionAction::prompt;
}

}  // namespace

FlowPromptResolutionOutcome resolve(const FlowPromptRequest& request, const FlowPromptResponse& response,
                                    const RuleSnapshotEnvelope& existingSnapshot, bool persistSessionRules,
                                    RuleOrigin persistedRuleOrigin, Date generatedAt, UuidSource& ids) {
    FlowPromptResolutionOutcome outcome;
    outcome.persistedRule = persistedRuleFor(request, response, persistSessionRules, persistedRuleOrigin, ids);

    if (outcome.persistedRule) {
        RuleSnapshotEnvelope updated{generatedAt, {}};
        updated.rules.reserve(existingSnapshot.rules.size() + 1);
        for (const Rule& rule : existingSnapshot.rules) {
            if (rule.id != outcome.persistedRule->id) updated.rules.push_back(rule);
        }
        updated.rules.push_back(*outcome.persistedRule);
        outcome.updatedSnapshot = std::move(updated);
    }

    const FlowDecisionAction action = decisionActionFor(response.action);
    std::string reasonCode = "prompt_resolved_";
    reasonCode += rawValue(action);
    reasonCode += '_';
    reasonCode += rawValue(response.scope);
    reasonCode += outcome.updatedSnapshot ? "_rule" : "_decision";

    std::optional<Uuid> matchedRuleID;
    if (outcome.persistedRule) matchedRuleID = outcome.persistedRule->id;
    outcome.decision = FlowDecision{action, std::move(reasonCode), matchedRuleID, request.id, 0};
    return outcome;
}

RuleSnapshotEnvelope preferredRuleSnapshot(const std::optional<RuleSnapshotEnvelope>& vendorSnapshot,
                                           const std::optional<RuleSnapshotEnvelope>& sharedSnapshot, Date now) {
    if (vendorSnapshot && sharedSnapshot) {
        return vendorSnapshot->generatedAt > sharedSnapshot->generatedAt ? *vendorSnapshot : *sharedSnapshot;
    }
    if (sharedSnapshot) return *sharedSnapshot;
    if (vendorSnapshot) return *vendorSnapshot;
    return RuleSnapshotEnvelope{now, {}};
}

}  // namespace quillfort::FlowPromptResolution
