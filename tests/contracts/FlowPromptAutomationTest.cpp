#include "contracts/FlowPromptAutomation.hpp"

#include <functional>

#include <gtest/gtest.h>

#include "contracts/FlowPromptRuleBuilder.hpp"
#include "tests/contracts/FlowPromptSamples.hpp"
#include "tests/testsupport/SequentialUuidSource.hpp"

namespace quillfort {
namespace {

using testing::sampleRequest;
using Preset = FlowPromptAutomationPreset;
using Environment = std::map<std::string, std::string>;

constexpr const char* kResponse = "QUILLFORT_AGENT_AUTOMATION_RESPONSE";
constexpr const char* kHost = "QUILLFORT_AUTOMATION_RULE_HOST";
constexpr const char* kPort = "QUILLFORT_AUTOMATION_RULE_PORT";

TEST(AutomationDirective, ReadsMessyEnvironmentValues) {
    using D = FlowPromptAutomationDirective;
    using Focus = FlowPromptAutomationFocus;
    const D allowOnceAnyPort{Preset::allowOnce, Focus{"example.com", std::nullopt}};
    const std::pair<Environment, std::optional<D>> cases[] = {
        {{}, std::nullopt},
        {{{kResponse, " \tAllow-SESSION\r\n"}}, D{Preset::allowSession, std::nullopt}},
        {{{kResponse, ""}, {kHost, "example.com"}}, std::nullopt},
        {{{kResponse, "block-permanent"}, {kHost, " [FE80::1]\n"}, {kPort, " +8443\n"}},
         D{Preset::blockPermanent, Focus{"fe80::1", 8443}}},
        {{{kResponse, "allow-once"}, {kHost, "Example.com"}, {kPort, "70000"}}, allowOnceAnyPort},
        {{{kResponse, "allow-once"}, {kHost, "example.com"}, {kPort, "-1"}}, allowOnceAnyPort},
        {{{kResponse, "block-once"}, {kHost, " [] "}, {kPort, "443"}}, D{Preset::blockOnce, std::nullopt}},
    };
    for (const auto& [environment, expected] : cases) {
        EXPECT_EQ(D::fromEnvironment(environment), expected) << ::testing::PrintToString(environment);
    }
}

TEST(AutomationFocus, MatchesTheNormalisedHostAndThePortWhenGiven) {
    struct Case {
        const char* what;
        std::optional<std::string> focusHost;
        std::optional<std::uint16_t> focusPort;
        std::function<void(FlowPromptRequest&)> edit;
        bool matches;
    };
    const Case cases[] = {
        {"bracketed IPv6, any port", "[::1]", std::nullopt,
         [](auto& r) {
             r.context.matchedHostname.reset(), r.context.flow.port.reset();
             r.context.flow.remoteEndpoint = NetworkEndpoint{"::1", 9999};
         },
         true},
        {"both hosts normalised, same port", "Example.COM", 443,
         [](auto& r) { r.context.matchedHostname = " example.COM\n"; }, true},
        {"other port", "api.example.com", 443, [](auto& r) { r.context.flow.port = 80; }, false},
        {"port from the endpoint", "api.example.com", 443, [](auto& r) { r.context.flow.port.reset(); }, true},
        {"no port at all", "api.example.com", 443,
         [](auto& r) { r.context.flow.port.reset(), r.context.flow.remoteEndpoint.reset(); }, false},
        {"matched host name wins over host text", "example.com", std::nullopt,
         [](auto& r) { r.context.matchedHostname = "other.com", r.context.flow.hostText = "example.com"; }, false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        const auto focus = FlowPromptAutomationFocus::make(c.focusHost, c.focusPort);
        ASSERT_TRUE(focus);
        auto request = sampleRequest();
        c.edit(request);
        EXPECT_EQ(focus->matches(request), c.matches);
        const FlowPromptAutomationDirective directive{Preset::allowOnce, focus};
        EXPECT_EQ(directive.makeResponseIfMatch(request).has_value(), c.matches);
    }
    EXPECT_EQ(FlowPromptAutomationFocus::make(std::nullopt, 443), std::nullopt);
    EXPECT_EQ(FlowPromptAutomationFocus::make(" \n", 443), std::nullopt);
}

TEST(AutomationPreset, MakesTheCannedAnswerWithTheDefaultRule) {
    const std::tuple<Preset, RuleAction, RuleScope> cases[] = {
        {Preset::allowOnce, RuleAction::allow, RuleScope::temporary},
        {Preset::allowSession, RuleAction::allow, RuleScope::session},
        {Preset::allowPermanent, RuleAction::allow, RuleScope::persistent},
        {Preset::blockOnce, RuleAction::drop, RuleScope::temporary},
        {Preset::blockSession, RuleAction::drop, RuleScope::session},
        {Preset::blockPermanent, RuleAction::drop, RuleScope::persistent},
    };
    const auto request = sampleRequest();
    for (const auto& [preset, action, scope] : cases) {
        testing::SequentialUuidSource ids, sameIds;
        const bool once = scope == RuleScope::temporary;
        auto selection = once ? std::nullopt : std::optional(FlowPromptRuleBuilder::defaultSelection(request));
        auto rule = once ? std::nullopt
                         : FlowPromptRuleBuilder::buildSuggestedRule(request, action, scope, *selection, sameIds);
        EXPECT_EQ(makeResponse(preset, request, ids),
                  (FlowPromptResponse{request.id, action, scope, scope == RuleScope::persistent, selection, rule}))
            << rawValue(preset);
    }
}

}  // namespace
}  // namespace quillfort
