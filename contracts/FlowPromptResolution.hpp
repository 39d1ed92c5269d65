// Turns an answered prompt into the decision for the waiting flow and, for a
// lasting answer, the rule it creates merged into the shared rule snapshot.
#pragma once

#include <cstdint>
#include <optional>

#include "contracts/FlowPromptMessages.hpp"
#include "contracts/RuleSnapshotEnvelope.hpp"
#include "model/Date.hpp"
#include "model/FlowDecision.hpp"
#include "model/Rule.hpp"
#include "model/Uuid.hpp"

namespace quillfort {

struct FlowPromptResolutionOutcome {
    FlowDecision decision;
    std::optional<RuleSnapshotEnvelope> updatedSnapshot;  // absent when no rule results
    std::optional<Rule> persistedRule;                    // the rule as merged

    bool operator==(const FlowPromptResolutionOutcome&) const = default;
};

namespace FlowPromptResolution {

// The priority of a prompt-made rule that arrives with priority 0.
inline constexpr std::int64_t defaultPromptRulePriority = 10000;

// The decision and rule that `response` makes of `request`. A one-time
// (`temporary`) answer makes no rule, nor does a `session` answer unless
// `persistSessionRules`; the rule is the response's suggested rule, else one
// built from its rule selection (its id then comes from `ids`), stamped with the
// response's action and scope and `persistedRuleOrigin`. It replaces any rule
// of the same id in `existingSnapshot` and is appended at the end of a snapshot
// dated `generatedAt`. Never fails.
[[nodiscard]] FlowPromptResolutionOutcome resolve(const FlowPromptRequest& request, const FlowPromptResponse& response,
                                                  const RuleSnapshotEnvelope& existingSnapshot,
                                                  bool persistSessionRules, RuleOrigin persistedRuleOrigin,
                                                  Date generatedAt, UuidSource& ids = *randomUuidSource());

// The snapshot to use of the filter configuration's and the shared file's: the
// later one, the shared one on a tie, the only one present, or an empty rule set
// dated `now`.
[[nodiscard]] RuleSnapshotEnvelope preferredRuleSnapshot(const std::optional<RuleSnapshotEnvelope>& vendorSnapshot,
                                                         const std::optional<RuleSnapshotEnvelope>& sharedSnapshot,
                                                         Date now);

}  // namespace FlowPromptResolution
}  // namespace quillfort
