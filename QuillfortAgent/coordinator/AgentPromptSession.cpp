#include "QuillfortAgent/coordinator/AgentPromptSession.hpp"

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
    // A one-time answer makes no rule, not even a rewritten one: there is
    // nothing for the reused rule to be replaced with.
    if (!built) return std::nullopt;
    if (reuseExistingSignerRule && signerReuseTemplateRule) {
        // Reusing the existing rule rewrites it to the new signer, keeping its
        // identity so that storing the answer replaces it.
        return FlowPromptExistingRuleAnalyzer::ruleUpdatingSigner(request, {*signerReuseTemplateRule},
                                                                  signerReuseTemplateRule->id, std::move(*built));
    }
    return built;
}

std::optional<Rule> AgentPromptSession::suggestedRule() const {
    return suggestedRule(*randomUuidSource());
}

}  // namespace quillfort
