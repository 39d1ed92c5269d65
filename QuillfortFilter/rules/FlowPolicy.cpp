#include "QuillfortFilter/rules/FlowPolicy.hpp"

#include <fmt/format.h>

namespace quillfort::FlowPolicy {

namespace {

PolicyOutcome fromRule(const Rule& rule, FlowFilterDecisionSource source) {
    PolicyOutcome outcome;
    outcome.kind = rule.action == RuleAction::allow  ? PolicyOutcome::Kind::allow
                   : rule.action == RuleAction::drop ? PolicyOutcome::Kind::drop
                                                     : PolicyOutcome::Kind::ask;
    outcome.source = source;
    outcome.reasonCode = fmt::format("{}_{}", rawValue(source), rawValue(rule.action));
    outcome.matchedRuleID = rule.id;
    outcome.ruleName = rule.name;
    return outcome;
}

Rule bootstrapRule(std::size_t number, std::string_view name, std::vector<RuleSubject> subject,
                   std::vector<RuleDestination> destination) {
    Rule rule;
    // Fixed identities, the same in every run, so events name them stably.
    rule.id = *Uuid::parse(fmt::format("0BD0B007-0000-4000-8000-{:012X}", number));
    rule.name = std::string(name);
    rule.action = RuleAction::allow;
    rule.subject = std::move(subject);
    rule.destination = std::move(destination);
    rule.scope = RuleScope::persistent;
    rule.origin = RuleOrigin::bootstrap;
    rule.priority = -1'000'000;
    return rule;
}

}  // namespace

FlowFilterDecisionSource sourceFor(RuleOrigin origin) noexcept {
    switch (origin) {
        case RuleOrigin::manual: return FlowFilterDecisionSource::explicitRule;
        case RuleOrigin::promptResolved: return FlowFilterDecisionSource::promptResolution;
        case RuleOrigin::permissiveLearned: return FlowFilterDecisionSource::permissiveLearnedRule;
        case RuleOrigin::bootstrap: return FlowFilterDecisionSource::bootstrapAllowlist;
    }
    return FlowFilterDecisionSource::explicitRule;
}

PolicyOutcome decide(const FlowFacts& facts, bool kernel, const RuleIndex& rules, const RuleIndex* bootstrap,
                     UnknownTrafficMode unknownTrafficMode) {
    if (const Rule* rule = rules.decide(facts)) {
        PolicyOutcome outcome = fromRule(*rule, sourceFor(rule->origin));
        // An ask rule would hold kernel traffic; it passes instead, as with no rule.
        if (!(kernel && outcome.kind == PolicyOutcome::Kind::ask)) return outcome;
    }
    if (bootstrap)
        if (const Rule* rule = bootstrap->decide(facts)) return fromRule(*rule, FlowFilterDecisionSource::bootstrapAllowlist);
    PolicyOutcome outcome;
    switch (unknownTrafficMode) {
        case UnknownTrafficMode::permissive:
            outcome.kind = PolicyOutcome::Kind::allow;
            outcome.source = FlowFilterDecisionSource::defaultPermissiveAllow;
            break;
        case UnknownTrafficMode::blocking:
            outcome.kind = PolicyOutcome::Kind::drop;
            outcome.source = FlowFilterDecisionSource::defaultBlockingDrop;
            break;
        case UnknownTrafficMode::alerting:
            if (kernel) {
                outcome.kind = PolicyOutcome::Kind::allow;
                outcome.source = FlowFilterDecisionSource::unsupportedFallback;
                outcome.reasonCode = "kernel_traffic_allow";
                return outcome;
            }
            outcome.kind = PolicyOutcome::Kind::ask;
            outcome.source = FlowFilterDecisionSource::defaultAlertingPrompt;
            break;
    }
    outcome.reasonCode = std::string(rawValue(outcome.source));
    return outcome;
}

std::vector<Rule> bootstrapRules() {
    using S = RuleSubject;
    using D = RuleDestination;
    std::vector<Rule> rules;
    for (std::uint16_t port : {std::uint16_t{67}, std::uint16_t{547}})
        rules.push_back(bootstrapRule(rules.size() + 1, fmt::format("Allow DHCP clients -> port {}", port), {},
                                      {D::portExact(port), D::transportProtocol(TransportProtocol::udp),
                                       D::direction(FlowDirection::outbound)}));
    for (const char* daemon : {"/usr/lib/systemd/systemd-timesyncd", "/usr/sbin/chronyd", "/usr/sbin/ntpd",
                               "/usr/sbin/ntpsec"})
        rules.push_back(bootstrapRule(rules.size() + 1, fmt::format("Allow {} -> NTP", daemon), {S::exactExecutable(daemon)},
                                      {D::portExact(123), D::transportProtocol(TransportProtocol::udp)}));
    for (std::uint16_t port : {std::uint16_t{53}, std::uint16_t{853}})
        rules.push_back(bootstrapRule(rules.size() + 1, fmt::format("Allow systemd-resolved -> port {}", port),
                                      {S::exactExecutable("/usr/lib/systemd/systemd-resolved")},
                                      {D::portExact(port), D::direction(FlowDirection::outbound)}));
    return rules;
}

}  // namespace quillfort::FlowPolicy
