#include "QuillfortFilter/rules/RuleIndex.hpp"

#include <gtest/gtest.h>

#include "QuillfortFilter/rules/FlowPolicy.hpp"
#include "QuillfortFilter/rules/RuleMatcher.hpp"

namespace quillfort {
namespace {

using S = RuleSubject;
using D = RuleDestination;

struct SampleFlow {
    ProcessNode process;
    ProcessNode parent;
    FlowFacts facts;

    SampleFlow() {
        process.identity.executablePath = "/usr/bin/curl";
        process.identity.cwd = "/home/dev/src";
        process.identity.scriptPath = "/home/dev/tools/fetch.py";
        process.identity.signingID = "curl";
        process.identity.cdHash = "ab12";
        process.identity.tty = "/dev/pts/1";
        process.tags = {ProcessTag::shell};
        parent.identity.executablePath = "/usr/bin/bash";
        parent.identity.signingID = "bash";
        parent.tags = {ProcessTag::shell, ProcessTag::terminal};
        facts.process = &process;
        facts.ancestors = {&parent};
        facts.hostNames = {"www.example.com", "edge.cdn-provider.net", "93.184.216.34"};
        facts.remoteAddress = IpAddress::parse("93.184.216.34");
        facts.port = 443;
        facts.protocol = TransportProtocol::tcp;
        facts.direction = FlowDirection::outbound;
    }
};

TEST(RuleMatcher, EachConditionHoldsExactlyWhenItsFlowFactDoes) {
    const SampleFlow flow;
    struct Case {
        std::variant<S, D> condition;
        bool holds;
    };
    const Case cases[] = {
        {S::exactExecutable("/usr/bin/curl"), true},
        {S::exactExecutable("/usr/bin/cur"), false},
        {S::pathGlob("/usr/*/curl"), true},
        {S::pathGlob("/*/curl"), false},  // one * stays within a folder
        {S::pathGlob("/**/curl"), true},
        {S::signingID("curl"), true},
        {S::teamID("curl"), false},  // Linux has no team identifiers
        {S::cdHash("AB12"), true},
        {S::processTag(ProcessTag::shell), true},
        {S::processTag(ProcessTag::terminal), false},
        {S::ancestorProcessTag(ProcessTag::terminal), true},
        {S::ancestorSigningID("bash"), true},
        {S::cwdPrefix("/home/dev"), true},
        {S::cwdPrefix("/home/de"), false},  // not a folder boundary
        {S::scriptPathSuffix("fetch.py"), true},
        {S::ttyPresent(false), false},
        {D::hostnameExact("WWW.EXAMPLE.COM."), true},
        {D::hostnameExact("edge.cdn-provider.net"), true},  // a name of the CNAME chain
        {D::hostnameExact("93.184.216.34"), true},
        {D::hostnameSuffix("*.example.com"), true},
        {D::hostnameSuffix("cdn-provider.net"), true},
        {D::hostnameSuffix("ample.com"), false},
        {D::hostnameSuffix("*."), false},
        {D::hostnameGlob("*.cdn-*.net"), true},
        {D::ipCIDR("93.184.0.0/16"), true},
        {D::ipCIDR("93.185.0.0/16"), false},
        {D::ipCIDR("not a network"), false},
        {D::portRange({400, 443}), true},
        {D::portRange({444, 400}), false},
        {D::transportProtocol(TransportProtocol::udp), false},
        {D::direction(FlowDirection::outbound), true},
    };
    for (const auto& c : cases) {
        const bool held = std::visit(
            [&](const auto& condition) {
                if constexpr (std::is_same_v<std::decay_t<decltype(condition)>, S>)
                    return RuleMatcher::subjectHolds(condition, flow.facts);
                else
                    return RuleMatcher::destinationHolds(condition, flow.facts);
            },
            c.condition);
        EXPECT_EQ(held, c.holds) << std::visit([](const auto& condition) {
            std::ostringstream text;
            text << condition;
            return text.str();
        }, c.condition);
    }
}

Rule rule(std::string name, RuleAction action, std::vector<S> subject, std::vector<D> destination,
          std::int64_t priority = 0) {
    Rule made;
    made.id = Uuid::random();
    made.name = std::move(name);
    made.action = action;
    made.subject = std::move(subject);
    made.destination = std::move(destination);
    made.priority = priority;
    return made;
}

TEST(RuleIndex, PriorityThenSpecificityThenDropThenSnapshotOrder) {
    const SampleFlow flow;
    struct Case {
        std::vector<Rule> rules;
        std::string winner;
    };
    const std::vector<Case> cases = {
        {{rule("allow high", RuleAction::allow, {S::exactExecutable("/usr/bin/curl")}, {}, 10),
          rule("drop low", RuleAction::drop, {S::exactExecutable("/usr/bin/curl")}, {D::portExact(443)}, 5)},
         "allow high"},
        {{rule("drop any", RuleAction::drop, {S::exactExecutable("/usr/bin/curl")}, {}),
          rule("allow host", RuleAction::allow, {S::exactExecutable("/usr/bin/curl")}, {D::hostnameSuffix("example.com")})},
         "allow host"},
        {{rule("allow", RuleAction::allow, {}, {D::ipCIDR("93.184.216.0/24")}),
          rule("ask", RuleAction::ask, {}, {D::portExact(443)}),
          rule("drop", RuleAction::drop, {S::processTag(ProcessTag::shell)}, {})},
         "drop"},
        {{rule("first", RuleAction::allow, {}, {D::hostnameExact("www.example.com")}),
          rule("second", RuleAction::allow, {}, {D::hostnameExact("www.example.com")})},
         "first"},
    };
    for (const auto& c : cases) {
        RuleIndex index(c.rules);
        const Rule* winner = index.decide(flow.facts);
        ASSERT_NE(winner, nullptr) << c.winner;
        EXPECT_EQ(winner->name, c.winner);
    }
}

TEST(RuleIndex, FindsTheOneMatchingRuleAmongTenThousandWhereverItIsFiled) {
    const SampleFlow flow;
    std::vector<Rule> rules;
    for (int i = 0; i < 10000; ++i)
        rules.push_back(rule("other " + std::to_string(i), RuleAction::allow, {S::exactExecutable("/usr/bin/curl")},
                             {D::hostnameExact("host" + std::to_string(i) + ".example.org")}));
    const std::vector<Rule> filed = {
        rule("by domain", RuleAction::drop, {}, {D::hostnameSuffix(".cdn-provider.net")}),
        rule("by network", RuleAction::drop, {}, {D::ipCIDR("93.184.216.34/32")}),
        rule("by port", RuleAction::drop, {}, {D::portExact(443)}),
        rule("by nothing filed", RuleAction::drop, {S::ancestorSigningID("bash")}, {}),
    };
    for (const auto& wanted : filed) {
        auto all = rules;
        all.insert(all.begin() + 5000, wanted);
        Rule disabled = wanted;
        disabled.enabled = false;
        disabled.action = RuleAction::allow;
        disabled.priority = 99;
        all.push_back(disabled);  // disabled rules never decide
        RuleIndex index(std::move(all));
        const Rule* winner = index.decide(flow.facts);
        ASSERT_NE(winner, nullptr) << wanted.name;
        EXPECT_EQ(winner->name, wanted.name);
    }
}

TEST(FlowPolicy, RulesThenBootstrapThenTheUnknownTrafficMode) {
    SampleFlow flow;
    const RuleIndex none;
    const RuleIndex bootstrap(FlowPolicy::bootstrapRules());
    EXPECT_EQ(FlowPolicy::decide(flow.facts, false, none, &bootstrap, UnknownTrafficMode::alerting).kind,
              PolicyOutcome::Kind::ask);
    EXPECT_EQ(FlowPolicy::decide(flow.facts, false, none, &bootstrap, UnknownTrafficMode::blocking).reasonCode,
              "default_blocking_drop");
    // The kernel's own traffic is never held for a prompt.
    const auto kernel = FlowPolicy::decide(flow.facts, true, none, &bootstrap, UnknownTrafficMode::alerting);
    EXPECT_EQ(kernel.kind, PolicyOutcome::Kind::allow);
    EXPECT_EQ(kernel.source, FlowFilterDecisionSource::unsupportedFallback);

    flow.facts.port = 67;
    flow.facts.protocol = TransportProtocol::udp;
    const auto dhcp = FlowPolicy::decide(flow.facts, false, none, &bootstrap, UnknownTrafficMode::blocking);
    EXPECT_EQ(dhcp.source, FlowFilterDecisionSource::bootstrapAllowlist);
    // A user's rule wins over the allowlist, whatever its priority.
    Rule block = rule("block dhcp", RuleAction::drop, {}, {D::portExact(67)}, -5'000'000);
    block.origin = RuleOrigin::manual;
    const RuleIndex user({block});
    const auto blocked = FlowPolicy::decide(flow.facts, false, user, &bootstrap, UnknownTrafficMode::permissive);
    EXPECT_EQ(blocked.kind, PolicyOutcome::Kind::drop);
    EXPECT_EQ(blocked.reasonCode, "explicit_rule_drop");
}

}  // namespace
}  // namespace quillfort
