// Spots an existing rule that a prompted flow would still match but for its
// signer (the program was re-signed under a new identifier at the same path),
// and rewrites such a rule to carry the process's current signer.
#pragma once

#include <optional>
#include <vector>

#include "contracts/FlowPromptMessages.hpp"
#include "model/Rule.hpp"
#include "model/Uuid.hpp"

namespace quillfort::FlowPromptExistingRuleAnalyzer {

// The first rule, in snapshot order and whether enabled or not, that names the
// process's executable, matches the flow in every other condition, and records
// a signer other than the process's current one.
[[nodiscard]] std::optional<FlowPromptSignerChangeCandidate> signerChangeCandidate(
    const FlowPromptRequest& request, const std::vector<Rule>& existingRules);

// `replacementRule` turned into an update of the rule `existingRuleID`: that
// rule's id, name, priority and enabled state, every signer condition set to
// the current signer (one appended when none remains). `replacementRule`
// unchanged when the process has no signer or the rule is not found.
[[nodiscard]] Rule ruleUpdatingSigner(const FlowPromptRequest& request, const std::vector<Rule>& existingRules,
                                      const Uuid& existingRuleID, Rule replacementRule);

// Every subject condition holds for the prompted process, signer conditions
// counting as held. Conditions this comparison cannot judge never hold.
[[nodiscard]] bool subjectMatchesWithoutSigner(const std::vector<RuleSubject>& subject,
                                               const FlowPromptRequest& request);

// Every destination condition holds for the prompted flow's host, port and
// protocol. Conditions this comparison cannot judge never hold.
[[nodiscard]] bool destinationMatches(const std::vector<RuleDestination>& destination,
                                      const FlowPromptRequest& request);

// The enabled `rule` would decide the prompted flow: every subject condition
// holds, the signer compared this time, and every destination condition holds.
// Judged condition by condition as above, so a rule using a condition this
// comparison cannot judge never decides a prompt.
[[nodiscard]] bool ruleDecides(const Rule& rule, const FlowPromptRequest& request);

}  // namespace quillfort::FlowPromptExistingRuleAnalyzer
