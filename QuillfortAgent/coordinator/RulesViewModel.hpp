// What the rules view shows, as plain functions of the rule book's state: the
// rows that match a search, in the order asked for, with every text a row
// and its controls show. Tested without a screen; the widget only binds them.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "model/Date.hpp"
#include "model/Rule.hpp"

namespace quillfort {

struct AgentRuleBookState;

enum class RuleSortOrder { snapshot, name, action, priority };

struct RuleRow {
    Uuid id;
    std::size_t snapshotIndex = 0;  // where the rule stands in the snapshot
    bool enabled = true;
    std::string name;
    RuleAction action = RuleAction::allow;
    std::string actionTitle;  // "Allow", "Block", "Ask"
    std::string scopeTitle;   // "Always", "Session", "Once"
    std::string conditions;   // as `quillfort rules` writes them
    std::string originTitle;  // "Prompt", "Manual", "Learned", "Built in"
    std::int64_t priority = 0;
    std::optional<Date> expiresAt;
    std::string expiryTitle;  // "never", "in 1 h"

    bool operator==(const RuleRow&) const = default;
};

struct RuleExpiryChoice {
    std::string_view title;
    std::optional<std::chrono::seconds> duration;  // nothing: never
};

namespace RulesViewModel {

// Every rule that `search` finds (blank: all), in `order`: by name without
// regard to case, by action (allow, block, ask), by priority highest first;
// ties keep the snapshot's order.
[[nodiscard]] std::vector<RuleRow> rows(const AgentRuleBookState& state, std::string_view search, RuleSortOrder order,
                                        Date now);
// Whether `search` occurs, without regard to case, in the rule's name, id,
// conditions, action, scope, origin or notes. Blank words match everything;
// several words must all occur.
[[nodiscard]] bool matches(const Rule& rule, std::string_view search);

[[nodiscard]] std::string_view actionTitle(RuleAction action);
[[nodiscard]] std::string_view scopeTitle(RuleScope scope);
[[nodiscard]] std::string_view originTitle(RuleOrigin origin);
// Never, 15 minutes, 1 hour, 1 day: the ends the view offers.
[[nodiscard]] const std::vector<RuleExpiryChoice>& expiryChoices();
[[nodiscard]] std::string sortTitle(RuleSortOrder order);
// "12 rules", "3 of 12 rules", "No rules yet.", "No rule matches “x”."
[[nodiscard]] std::string countText(std::size_t shown, std::size_t total, std::string_view search);
[[nodiscard]] std::string deletedText(const Rule& rule);

}  // namespace RulesViewModel

}  // namespace quillfort
