#include "QuillfortAgent/coordinator/RulesViewModel.hpp"

#include <algorithm>
#include <cctype>

#include <fmt/format.h>

#include "QuillfortAgent/host/AgentRuleBook.hpp"
#include "contracts/RuleConditionText.hpp"
#include "contracts/RuleExpiryStore.hpp"

namespace quillfort::RulesViewModel {

namespace {

std::string lowered(std::string_view text) {
    std::string out(text);
    std::ranges::transform(out, out.begin(), [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return out;
}

int actionRank(RuleAction action) {
    switch (action) {
        case RuleAction::allow: return 0;
        case RuleAction::drop: return 1;
        case RuleAction::ask: return 2;
    }
    return 3;
}

}  // namespace

std::string_view actionTitle(RuleAction action) {
    switch (action) {
        case RuleAction::allow: return "Allow";
        case RuleAction::drop: return "Block";
        case RuleAction::ask: return "Ask";
    }
    return "?";
}

std::string_view scopeTitle(RuleScope scope) {
    switch (scope) {
        case RuleScope::persistent: return "Always";
        case RuleScope::session: return "Session";
        case RuleScope::temporary: return "Once";
    }
    return "?";
}

std::string_view originTitle(RuleOrigin origin) {
    switch (origin) {
        case RuleOrigin::promptResolved: return "Prompt";
        case RuleOrigin::manual: return "Manual";
        case RuleOrigin::permissiveLearned: return "Learned";
        case RuleOrigin::bootstrap: return "Built in";
    }
    return "?";
}

bool matches(const Rule& rule, std::string_view search) {
    const std::string haystack =
        lowered(fmt::format("{}\n{}\n{}\n{} {}\n{} {}\n{}\n{}\n{}", rule.name, rule.id.uppercaseString(),
                            RuleConditionText::conditionsText(rule), actionTitle(rule.action), rawValue(rule.action),
                            scopeTitle(rule.scope), rawValue(rule.scope), originTitle(rule.origin),
                            rule.enabled ? "" : "disabled", rule.notes.value_or("")));
    const std::string needle = lowered(search);
    std::size_t at = 0;
    while (at < needle.size()) {
        const auto start = needle.find_first_not_of(" \t", at);
        if (start == std::string::npos) break;
        const auto end = std::min(needle.find_first_of(" \t", start), needle.size());
        if (haystack.find(needle.substr(start, end - start)) == std::string::npos) return false;
        at = end;
    }
    return true;
}

std::vector<RuleRow> rows(const AgentRuleBookState& state, std::string_view search, RuleSortOrder order, Date now) {
    std::vector<RuleRow> out;
    for (std::size_t i = 0; i < state.rules.size(); ++i) {
        const Rule& rule = state.rules[i];
        if (!matches(rule, search)) continue;
        RuleRow row;
        row.id = rule.id;
        row.snapshotIndex = i;
        row.enabled = rule.enabled;
        row.name = rule.name;
        row.action = rule.action;
        row.actionTitle = actionTitle(rule.action);
        row.scopeTitle = scopeTitle(rule.scope);
        row.conditions = RuleConditionText::conditionsText(rule);
        row.originTitle = originTitle(rule.origin);
        row.priority = rule.priority;
        if (const auto end = state.expiries.find(rule.id); end != state.expiries.end()) row.expiresAt = end->second;
        row.expiryTitle = row.expiresAt ? RuleExpiryDuration::remaining(*row.expiresAt, now) : "never";
        out.push_back(std::move(row));
    }
    switch (order) {
        case RuleSortOrder::snapshot: break;
        case RuleSortOrder::name:
            std::ranges::stable_sort(out, {}, [](const RuleRow& row) { return lowered(row.name); });
            break;
        case RuleSortOrder::action:
            std::ranges::stable_sort(out, {}, [](const RuleRow& row) { return actionRank(row.action); });
            break;
        case RuleSortOrder::priority:
            std::ranges::stable_sort(out, std::greater<>(), [](const RuleRow& row) { return row.priority; });
            break;
    }
    return out;
}

const std::vector<RuleExpiryChoice>& expiryChoices() {
    using namespace std::chrono_literals;
    static const std::vector<RuleExpiryChoice> choices{
        {"Never", std::nullopt}, {"15 minutes", 15min}, {"1 hour", 1h}, {"1 day", 24h}};
    return choices;
}

std::string sortTitle(RuleSortOrder order) {
    switch (order) {
        case RuleSortOrder::snapshot: return "Snapshot order";
        case RuleSortOrder::name: return "Name";
        case RuleSortOrder::action: return "Action";
        case RuleSortOrder::priority: return "Priority";
    }
    return "?";
}

std::string countText(std::size_t shown, std::size_t total, std::string_view search) {
    if (total == 0) return "No rules yet.";
    if (shown == 0) return fmt::format("No rule matches \u201c{}\u201d.", search);
    const std::string_view noun = total == 1 ? "rule" : "rules";
    if (shown == total) return fmt::format("{} {}", total, noun);
    return fmt::format("{} of {} {}", shown, total, noun);
}

std::string deletedText(const Rule& rule) { return fmt::format("Deleted \u201c{}\u201d.", rule.name); }

}  // namespace quillfort::RulesViewModel
