#include "tools/RuleFormatting.hpp"

#include <fmt/format.h>

#include "contracts/RuleConditionText.hpp"
#include "contracts/RuleExpiryStore.hpp"
#include "tools/TextTable.hpp"

namespace quillfort::RuleFormatting {

std::string conditionText(const RuleSubject& subject) { return RuleConditionText::conditionText(subject); }

std::string conditionText(const RuleDestination& destination) {
    return RuleConditionText::conditionText(destination);
}

std::string conditionsText(const Rule& rule) { return RuleConditionText::conditionsText(rule); }

std::string shortID(const Uuid& id) { return id.uppercaseString().substr(0, 8); }

std::string formatRuleTable(const RuleSnapshotEnvelope& snapshot, const std::map<Uuid, Date>& expiries, Date now) {
    if (snapshot.rules.empty()) return "No rules yet.\n";
    bool timed = false;
    for (const auto& rule : snapshot.rules) timed = timed || expiries.contains(rule.id);
    std::vector<std::vector<std::string>> rows;
    rows.reserve(snapshot.rules.size());
    for (const auto& rule : snapshot.rules) {
        rows.push_back({shortID(rule.id), std::string(rawValue(rule.action)), std::string(rawValue(rule.scope)),
                        rule.enabled ? rule.name : rule.name + " [disabled]", conditionsText(rule)});
        if (!timed) continue;
        const auto end = expiries.find(rule.id);
        rows.back().push_back(end == expiries.end() ? "never" : RuleExpiryDuration::remaining(end->second, now));
    }
    std::vector<std::string> headings{"ID", "ACTION", "SCOPE", "NAME", "CONDITIONS"};
    if (timed) headings.emplace_back("ENDS");
    return fmt::format("{} {}, snapshot of {}\n\n", snapshot.rules.size(), snapshot.rules.size() == 1 ? "rule" : "rules",
                       iso8601String(snapshot.generatedAt)) +
           TextTable::render(headings, rows);
}

}  // namespace quillfort::RuleFormatting
