#include "QuillfortAgent/AgentPromptSession.hpp"

#include "contracts/FlowPromptExistingRuleAnalyzer.hpp"
#include "contracts/FlowPromptRuleBuilder.hpp"

namespace quillfort {

std::optional<Rule> AgentPromptSession::suggestedRule(UuidSource& ids) const {
    // The signer is never chosen on its own: it rides along with the exact
    // executable, so that a rule naming a path also pins who signed it.
    FlowPromptRuleSelection selection = ruleSelection;
    const auto& node = request.context.matchedProcessNode;
    selection.includeSigner = selection.includeExactProcess && node.has_value() && node->identity.signingID.has_value();

    auto built =
        FlowPromptRuleBuilder::buildSuggestedRule(request, AgentPromptDecisionPresets::action(selectedPreset),
                                                  AgentPromptDecisionPresets::scope(selectedPreset), selection, ids);
    if (reuseExistingSignerRule && signerReuseTemplateRule) {
        // Reusing the existing rule rewrites it to the new signer. A one-time
        // answer builds no rule of its own, so the existing rule itself is what
        // gets rewritten; the answer still carries it, and whoever stores rules
        // decides by the answer's scope whether it is kept.
        Rule replacement = built ? std::move(*built) : *signerReuseTemplateRule;
        return FlowPromptExistingRuleAnalyzer::ruleUpdatingSigner(request, {*signerReuseTemplateRule},
                                                                  signerReuseTemplateRule->id, std::move(replacement));
    }
    return built;
}

std::optional<Rule> AgentPromptSession::suggestedRule() const {
    return suggestedRule(*randomUuidSource());
}

}  // namespace quillfort
