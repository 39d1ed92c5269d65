#include "contracts/FlowPromptRuleBuilder.hpp"

#include <functional>

#include <gtest/gtest.h>

#include "tests/contracts/FlowPromptSamples.hpp"
#include "tests/testsupport/SequentialUuidSource.hpp"

namespace quillfort {
namespace {

using namespace FlowPromptRuleBuilder;
using testing::sampleProcess;
using testing::sampleRequest;
using Mode = FlowPromptHostMatchMode;
using RequestEdit = std::function<void(FlowPromptRequest&)>;
using SelectionEdit = std::function<void(FlowPromptRuleSelection&)>;

const RequestEdit kAsSampled = [](FlowPromptRequest&) {};
const SelectionEdit kAsDefault = [](FlowPromptRuleSelection&) {};

void withoutHost(FlowPromptRequest& r) {
    r.context.matchedHostname.reset();
    r.context.flow.hostText.reset();
    r.context.flow.remoteEndpoint.reset();
}

TEST(RuleBuilder, DefaultSelectionOffersEveryFacetTheFlowHas) {
    // The sample flow's selection, every facet on, is the first row of the next test.
    const std::pair<RequestEdit, FlowPromptRuleSelection> cases[] = {
        {[](FlowPromptRequest& r) {  // a bare flow
             withoutHost(r);
             r.context.flow.port.reset();
             r.context.flow.transportProtocol = TransportProtocol::unknown;
             r.context.matchedProcessNode.reset();
             r.context.ancestorChain.clear();
         },
         {false, false, false, false, Mode::none, std::nullopt, false, false}},
        {[](FlowPromptRequest& r) {  // the empty signer still offered, host text, the endpoint's port
             r.context.matchedProcessNode = sampleProcess("/usr/bin/curl", "");
             r.context.ancestorChain = {sampleProcess("/bin/sh")};
             r.context.matchedHostname.reset();
             r.context.flow.hostText = "Files.Example.com";
             r.context.flow.port.reset();
         },
         {true, true, false, false, Mode::exact, "Files.Example.com", true, true}},
    };
    for (const auto& [edit, expected] : cases) {
        auto request = sampleRequest();
        edit(request);
        EXPECT_EQ(defaultSelection(request), expected);
    }
}

TEST(RuleBuilder, ConditionsAndNameFollowTheSelection) {
    using S = RuleSubject;
    using D = RuleDestination;
    const std::vector process = {S::exactExecutable("/usr/bin/curl"), S::signingID("com.apple.curl"),
                                 S::ancestorBundleID("com.apple.Terminal"), S::processTag(ProcessTag::shell)};
    const auto exactHost = D::hostnameExact("api.example.com");
    const auto port443 = D::portExact(443);
    const auto tcp = D::transportProtocol(TransportProtocol::tcp);
    struct Case {
        RuleAction action;
        RequestEdit editRequest;
        SelectionEdit editSelection;
        std::string name;
        std::vector<RuleSubject> subject;
        std::vector<RuleDestination> destination;
    };
    const Case cases[] = {
        {RuleAction::allow, kAsSampled, kAsDefault, "Allow curl -> api.example.com:443", process,
         {exactHost, port443, tcp}},
        // Switching to suffix keeps the override, which still holds the full host.
        {RuleAction::allow, kAsSampled, [](auto& s) { s.hostMatchMode = Mode::suffix; },
         "Allow curl -> domain *.api.example.com:443", process, {D::hostnameSuffix(".api.example.com"), port443, tcp}},
        {RuleAction::drop, [](auto& r) { r.context.matchedHostname = "a.b.example.co.uk"; },
         [](auto& s) { s.hostMatchMode = Mode::suffix, s.hostPatternOverride.reset(), s.includePortExact = false; },
         "Drop curl -> domain *.example.co.uk on any port", process, {D::hostnameSuffix(".example.co.uk"), tcp}},
        {RuleAction::allow, kAsSampled,
         [](auto& s) { s.hostMatchMode = Mode::suffix, s.hostPatternOverride = " *.example.org\n"; },
         "Allow curl -> domain *.example.org:443", process, {D::hostnameSuffix(".example.org"), port443, tcp}},
        {RuleAction::ask,
         [](auto& r) { withoutHost(r), r.context.flow.port.reset(); },
         [](auto& s) { s.hostMatchMode = Mode::exact, s.includePortExact = true; }, "Ask curl -> any-host on any port",
         process, {tcp}},
        {RuleAction::allow,
         [](auto& r) {
             r.context.flow.transportProtocol = TransportProtocol::unknown;
             r.context.matchedProcessNode->identity.signingID = "";
         },
         [](auto& s) { s.includeSigner = s.includeProtocol = true; }, "Allow curl -> api.example.com:443",
         {process[0], process[2], process[3]}, {exactHost, port443}},
        // Only the first ancestor that has a bundle id counts, even an empty one.
        {RuleAction::allow,
         [](auto& r) { r.context.ancestorChain = {sampleProcess("/a"), sampleProcess("/b", {}, {}, "com.b")}; },
         kAsDefault, "Allow curl -> api.example.com:443",
         {process[0], process[1], S::ancestorBundleID("com.b"), process[3]}, {exactHost, port443, tcp}},
        {RuleAction::allow,
         [](auto& r) { r.context.ancestorChain = {sampleProcess("/a", {}, {}, ""), sampleProcess("/b", {}, {}, "b")}; },
         kAsDefault, "Allow curl -> api.example.com:443", {process[0], process[1], process[3]},
         {exactHost, port443, tcp}},
        // Without tags of its own the process takes its ancestors': the first by raw value.
        {RuleAction::allow,
         [](auto& r) {
             r.context.matchedProcessNode->tags.clear();
             r.context.ancestorChain = {sampleProcess("/b", {}, {ProcessTag::warp, ProcessTag::node}),
                                        sampleProcess("/c", {}, {ProcessTag::git})};
         },
         kAsDefault, "Allow curl -> api.example.com:443", {process[0], process[1], S::processTag(ProcessTag::node)},
         {exactHost, port443, tcp}},
        {RuleAction::allow, [](auto& r) { r.context.matchedProcessNode.reset(); },
         [](auto& s) { s.includeExactProcess = s.includeSigner = true; }, "Allow process -> api.example.com:443",
         {process[2], process[3]}, {exactHost, port443, tcp}},
        {RuleAction::allow, kAsSampled, [](auto& s) { s = FlowPromptRuleSelection{}; },
         "Allow curl -> any destination", {}, {}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        auto request = sampleRequest();
        c.editRequest(request);
        auto selection = defaultSelection(request);
        c.editSelection(selection);
        testing::SequentialUuidSource ids;
        const auto rule = buildSuggestedRule(request, c.action, RuleScope::persistent, selection, ids);
        ASSERT_TRUE(rule.has_value());
        EXPECT_EQ(rule->name, c.name);
        EXPECT_EQ(rule->subject, c.subject);
        EXPECT_EQ(rule->destination, c.destination);
    }
}

TEST(RuleBuilder, StampsTheRuleAndMakesNoneForOneTimeAnswers) {
    const auto request = sampleRequest();
    const auto selection = defaultSelection(request);
    testing::SequentialUuidSource ids;
    EXPECT_FALSE(buildSuggestedRule(request, RuleAction::allow, RuleScope::temporary, selection, ids));
    EXPECT_EQ(ids.upcoming(), 1u) << "a one-time answer must not draw an identifier";

    const auto rule = buildSuggestedRule(request, RuleAction::drop, RuleScope::session, selection, ids);
    ASSERT_TRUE(rule);
    EXPECT_EQ(std::tie(rule->id, rule->enabled, rule->action, rule->scope, rule->origin, rule->priority, rule->notes),
              std::tuple(testing::uuidNumber(1), true, RuleAction::drop, RuleScope::session, RuleOrigin::promptResolved,
                         0, "Generated from Quillfort prompt 6F1C2A9E-0B4D-4E8F-9A7C-3D2E1F0A5B6C."));
}

TEST(RuleBuilder, RegistrableSuffixAndPatternNormalisation) {
    const std::pair<std::string, std::string> suffixes[] = {
        {"api.example.com", ".example.com"}, {"a.b.example.co.uk", ".example.co.uk"}, {"shop.example.de", ".example.de"},
        {"API.Example.CO.UK", ".Example.CO.UK"}, {"example.co.uk", ".example.co.uk"}, {"co.uk", ".co.uk"}, {"..api..example.com.", ".example.com"},
        {"localhost", "localhost"}, {"::1", "::1"},
    };
    for (const auto& [host, expected] : suffixes) EXPECT_EQ(hostnameSuffix(host), expected) << host;

    const std::pair<std::string, std::string> patterns[] = {
        {"example.com", ".example.com"}, {" *.*.example.com\n", ".example.com"}, {".example.com", ".example.com"},
        {"*.", ""},
    };
    for (const auto& [pattern, expected] : patterns) EXPECT_EQ(normalizedSuffixPattern(pattern), expected) << pattern;
}

}  // namespace
}  // namespace quillfort
