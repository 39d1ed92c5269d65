#include "contracts/FlowPromptExistingRuleAnalyzer.hpp"

#include <functional>

#include <gtest/gtest.h>

#include "tests/contracts/FlowPromptSamples.hpp"
#include "tests/testsupport/SequentialUuidSource.hpp"

namespace quillfort {
namespace {

using namespace FlowPromptExistingRuleAnalyzer;
using testing::sampleRequest;
using testing::uuidNumber;
using S = RuleSubject;
using D = RuleDestination;

// What the user allowed for curl before it was re-signed.
Rule oldCurlRule(std::uint64_t id = 1) {
    Rule rule;
    rule.id = uuidNumber(id);
    rule.name = "Allow curl -> api.example.com";
    rule.subject = {S::exactExecutable("/usr/bin/curl"), S::signingID("com.apple.curl.old")};
    rule.destination = {D::hostnameExact("api.example.com")};
    rule.priority = 10000;
    return rule;
}

TEST(ExistingRuleAnalyzer, ReportsOnlyARuleMatchingInAllButItsSigner) {
    struct Case {
        const char* what;
        std::function<void(Rule&)> edit;
        bool candidate;
    };
    const auto addSubject = [](S s) { return [s](Rule& r) { r.subject.push_back(s); }; };
    const auto addDestination = [](D d) { return [d](Rule& r) { r.destination.push_back(d); }; };
    const Case cases[] = {
        {"old signer", [](Rule&) {}, true},
        {"current signer", [](Rule& r) { r.subject[1] = S::signingID("com.apple.curl"); }, false},
        {"empty signer only", [](Rule& r) { r.subject[1] = S::signingID(""); }, false},
        {"empty signer before the old one", [](Rule& r) { r.subject.insert(r.subject.begin(), S::signingID("")); },
         true},
        {"signer alone", [](Rule& r) { r.subject.erase(r.subject.begin()); }, false},
        {"other executable", [](Rule& r) { r.subject[0] = S::exactExecutable("/usr/local/bin/curl"); }, false},
        {"own tag", addSubject(S::processTag(ProcessTag::shell)), true},
        {"foreign tag", addSubject(S::processTag(ProcessTag::git)), false},
        {"ancestor bundle", addSubject(S::ancestorBundleID("com.apple.Terminal")), true},
        {"foreign ancestor bundle", addSubject(S::ancestorBundleID("com.googlecode.iterm2")), false},
        {"ancestor signer", addSubject(S::ancestorSigningID("com.apple.zsh")), true},
        {"foreign ancestor signer", addSubject(S::ancestorSigningID("com.googlecode.iterm2")), false},
        {"ancestor tag", addSubject(S::ancestorProcessTag(ProcessTag::terminal)), true},
        {"foreign ancestor tag", addSubject(S::ancestorProcessTag(ProcessTag::ssh)), false},
        {"host in other case", [](Rule& r) { r.destination[0] = D::hostnameExact("API.example.com"); }, false},
        {"same port", addDestination(D::portExact(443)), true},
        {"other port", addDestination(D::portExact(80)), false},
        {"same protocol", addDestination(D::transportProtocol(TransportProtocol::tcp)), true},
        {"other protocol", addDestination(D::transportProtocol(TransportProtocol::udp)), false},
    };
    const auto request = sampleRequest();
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        Rule rule = oldCurlRule();
        c.edit(rule);
        const auto candidate = signerChangeCandidate(request, {rule});
        if (c.candidate) {
            EXPECT_EQ(candidate, (FlowPromptSignerChangeCandidate{rule.id, rule.name, "com.apple.curl.old"}));
        } else {
            EXPECT_EQ(candidate, std::nullopt);
        }
    }
    // Conditions the comparison cannot judge disqualify a rule outright.
    for (const auto& never : {S::bundleID("com.apple.curl"), S::pathGlob("/usr/bin/*"), S::teamID("APPLE"),
                              S::cdHash("abc"), S::cwdPrefix("/"), S::scriptPathSuffix("x"), S::ttyPresent(false)}) {
        Rule rule = oldCurlRule();
        rule.subject.push_back(never);
        EXPECT_EQ(signerChangeCandidate(request, {rule}), std::nullopt) << never;
    }
    for (const auto& never : {D::portRange({1, 65535}), D::direction(FlowDirection::outbound), D::hostnameGlob("*"),
                              D::ipCIDR("0.0.0.0/0")}) {
        Rule rule = oldCurlRule();
        rule.destination.push_back(never);
        EXPECT_EQ(signerChangeCandidate(request, {rule}), std::nullopt) << never;
    }
}

TEST(ExistingRuleAnalyzer, RuleDecidesAFlowOnlyWhenItsSignerHoldsToo) {
    struct Case {
        const char* what;
        std::function<void(Rule&)> editRule;
        std::function<void(FlowPromptRequest&)> editRequest;
        bool decides;
    };
    const auto same = [](Rule& r) { r.subject[1] = S::signingID("com.apple.curl"); };
    const auto asIs = [](auto&) {};
    const Case cases[] = {
        {"current signer", same, asIs, true},
        {"old signer", asIs, asIs, false},
        {"no conditions", [](Rule& r) { r.subject.clear(), r.destination.clear(); }, asIs, true},
        {"disabled", [&](Rule& r) { same(r), r.enabled = false; }, asIs, false},
        {"unsigned process", same, [](auto& q) { q.context.matchedProcessNode->identity.signingID.reset(); }, false},
        {"other host", same, [](auto& q) { q.context.matchedHostname = "example.org"; }, false},
        {"other executable", same, [](auto& q) { q.context.matchedProcessNode->identity.executablePath = "/bin/nc"; },
         false},
        {"unjudged condition", [&](Rule& r) { same(r), r.subject.push_back(S::teamID("APPLE")); }, asIs, false},
    };
    for (const auto& c : cases) {
        Rule rule = oldCurlRule();
        c.editRule(rule);
        auto request = sampleRequest();
        c.editRequest(request);
        EXPECT_EQ(ruleDecides(rule, request), c.decides) << c.what;
    }
}

TEST(ExistingRuleAnalyzer, NoCandidateWithoutAnIdentifiableProcess) {
    const std::function<void(FlowPromptRequest&)> edits[] = {
        [](auto& r) { r.context.matchedProcessNode.reset(); },
        [](auto& r) { r.context.matchedProcessNode->identity.signingID.reset(); },
        [](auto& r) { r.context.matchedProcessNode->identity.signingID = ""; },
        [](auto& r) { r.context.matchedProcessNode->identity.executablePath = ""; },
    };
    for (const auto& edit : edits) {
        auto request = sampleRequest();
        edit(request);
        EXPECT_EQ(signerChangeCandidate(request, {oldCurlRule()}), std::nullopt) << request;
    }
}

TEST(ExistingRuleAnalyzer, SuffixNamesTheDomainAndItsSubdomainsOnly) {
    struct Case {
        std::string pattern;
        std::optional<std::string> host;
        bool matches;
    };
    const Case cases[] = {
        {".example.com", "example.com", true},      {".example.com", "api.example.com", true},
        {".example.com", "badexample.com", false},  {"*.example.com", "example.com", true},
        {" example.com\n", "api.example.com", true}, {"example.com", "badexample.com", false},
        {".Example.com", "example.com", false},     {"*.", "example.com", false},
        {".example.com", std::nullopt, false},
    };
    for (const auto& c : cases) {
        auto request = sampleRequest();
        request.context.matchedHostname = c.host;
        request.context.flow.remoteEndpoint.reset();
        EXPECT_EQ(destinationMatches({D::hostnameSuffix(c.pattern)}, request), c.matches)
            << "'" << c.pattern << "' for " << c.host.value_or("no host");
    }
}

TEST(ExistingRuleAnalyzer, FirstQualifyingRuleWinsEnabledOrNot) {
    Rule unrelated = oldCurlRule(1);
    unrelated.destination = {D::hostnameExact("other.example.com")};
    Rule disabledBlock = oldCurlRule(2);
    disabledBlock.enabled = false;
    disabledBlock.action = RuleAction::drop;
    disabledBlock.subject[1] = S::signingID("com.apple.curl.v1");
    const Rule later = oldCurlRule(3);
    const auto candidate = signerChangeCandidate(sampleRequest(), {unrelated, disabledBlock, later});
    EXPECT_EQ(candidate, (FlowPromptSignerChangeCandidate{uuidNumber(2), disabledBlock.name, "com.apple.curl.v1"}));
}

TEST(ExistingRuleAnalyzer, UpdatedRuleKeepsTheOldIdentityAndCarriesTheNewSigner) {
    const auto request = sampleRequest();
    Rule existing = oldCurlRule(7);
    existing.enabled = false;
    existing.priority = 123;
    Rule replacement;
    replacement.id = uuidNumber(99);
    replacement.name = "Drop curl -> api.example.com:443";
    replacement.action = RuleAction::drop;
    replacement.subject = {S::exactExecutable("/usr/bin/curl")};
    replacement.destination = {D::portExact(443)};
    replacement.scope = RuleScope::session;
    replacement.origin = RuleOrigin::promptResolved;
    replacement.notes = "from the prompt";

    Rule expected = replacement;
    expected.id = existing.id;
    expected.name = existing.name;
    expected.enabled = false;
    expected.priority = 123;
    expected.subject.push_back(S::signingID("com.apple.curl"));
    EXPECT_EQ(ruleUpdatingSigner(request, {oldCurlRule(1), existing}, existing.id, replacement), expected);

    // Every signer condition takes the new signer in place; none is appended.
    replacement.subject = {S::signingID(""), S::exactExecutable("/usr/bin/curl"), S::signingID("old")};
    const auto updated = ruleUpdatingSigner(request, {existing}, existing.id, replacement);
    EXPECT_EQ(updated.subject, (std::vector{S::signingID("com.apple.curl"), S::exactExecutable("/usr/bin/curl"),
                                            S::signingID("com.apple.curl")}));

    // Unchanged when there is nothing to update from or to.
    EXPECT_EQ(ruleUpdatingSigner(request, {existing}, uuidNumber(8), replacement), replacement);
    EXPECT_EQ(ruleUpdatingSigner(request, {}, existing.id, replacement), replacement);
    auto unsigned_ = request;
    unsigned_.context.matchedProcessNode->identity.signingID.reset();
    EXPECT_EQ(ruleUpdatingSigner(unsigned_, {existing}, existing.id, replacement), replacement);
}

}  // namespace
}  // namespace quillfort
