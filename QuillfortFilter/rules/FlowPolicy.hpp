// What the filter does with a flow before anyone is asked: the user's rules
// first, then the bootstrap allowlist (the few system services a machine
// needs before anyone signs in), then the unknown-traffic mode. The result
// says which of these decided and why, in the words flow events record.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "QuillfortFilter/rules/RuleIndex.hpp"
#include "contracts/FlowFilterEvent.hpp"
#include "model/FlowDecision.hpp"
#include "model/Rule.hpp"

namespace quillfort {

struct PolicyOutcome {
    enum class Kind { allow, drop, ask };

    Kind kind = Kind::ask;
    FlowFilterDecisionSource source = FlowFilterDecisionSource::defaultAlertingPrompt;
    std::string reasonCode;
    std::optional<Uuid> matchedRuleID;
    std::optional<std::string> ruleName;

    bool operator==(const PolicyOutcome&) const = default;
};

namespace FlowPolicy {

// `kernel`: no process owns the flow (tunnels, network file systems). Such a
// flow is never held for a prompt: with no rule naming it, alerting mode lets
// it pass (recorded as the kernel's) and the other modes apply as usual.
[[nodiscard]] PolicyOutcome decide(const FlowFacts& facts, bool kernel, const RuleIndex& rules,
                                   const RuleIndex* bootstrap, UnknownTrafficMode unknownTrafficMode);

// DHCP (any client), NTP from the usual time daemons and DNS from
// systemd-resolved: allowed with the lowest priority, under any user rule.
[[nodiscard]] std::vector<Rule> bootstrapRules();

// What a rule's origin makes of the decision source.
[[nodiscard]] FlowFilterDecisionSource sourceFor(RuleOrigin origin) noexcept;

}  // namespace FlowPolicy

}  // namespace quillfort
