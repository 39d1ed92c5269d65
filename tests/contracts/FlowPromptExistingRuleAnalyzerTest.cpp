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
    const auto add = [](std::vector<S> subject, std::vector<D> destination) {
        return [=](Rule& r) {
            r.subject.insert(r.subject.end(), subject.begin(), subject.end());
            r.destination.insert(r.destination.end(), destination.begin(), destination.end());
        };
    };
    const Case cases[] = {
        {"old signer", [](Rule&) {}, true},
        {"every facet the flow has",
         add({S::processTag(ProcessTag::shell), S::ancestorBundleID("com.apple.Terminal"),
              S::ancestorSigningID("com.apple.zsh"), S::ancestorProcessTag(ProcessTag::terminal)},
             {D::portExact(443), D::transportProtocol(TransportProtocol::tcp)}),
         true},
        {"current signer", [](Rule& r) { r.subject[1] = S::signingID("com.apple.curl"); }, false},
        {"empty signer before the old one", [](Rule& r) { r.subject.insert(r.subject.begin(), S::signingID("")); },
         true},
        {"signer alone", [](Rule& r) { r.subject.erase(r.subject.begin()); }, false},
        {"other executable", [](Rule& r) { r.subject[0] = S::exactExecutable("/usr/local/bin/curl"); }, false},
        {"foreign tag", add({S::processTag(ProcessTag::git)}, {}), false},
        {"foreign ancestor bundle", add({S::ancestorBundleID("com.googlecode.iterm2")}, {}), false},
        {"foreign ancestor signer", add({S::ancestorSigningID("com.googlecode.iterm2")}, {}), false},
        {"foreign ancestor tag", add({S::ancestorProcessTag(ProcessTag::ssh)}, {}), false},
        {"host in other case", [](Rule& r) { r.destination[0] = D::hostnameExact("API.example.com"); }, false},
        // A domain condition names the domain itself and every name below it.
        {"the host's own domain", [](Rule& r) { r.destination[0] = D::hostnameSuffix(" *.api.example.com\n"); }, true},
        {"a parent domain", [](Rule& r) { r.destination[0] = D::hostnameSuffix(".example.com"); }, true},
        {"same ending letters", [](Rule& r) { r.destination[0] = D::hostnameSuffix("pi.example.com"); }, false},
        {"empty domain", [](Rule& r) { r.destination[0] = D::hostnameSuffix("*."); }, false},
        {"other port", add({}, {D::portExact(80)}), false},
        {"other protocol", add({}, {D::transportProtocol(TransportProtocol::udp)}), false},
        // Conditions the comparison cannot judge disqualify a rule outright.
        {"unjudged subject", add({S::bundleID("com.apple.curl")}, {}), false},
        {"unjudged destination", add({}, {D::portRange({1, 65535})}), false},
    };
    const auto request = sampleRequest();
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        Rule rule = oldCurlRule();
        c.edit(rule);
        const FlowPromptSignerChangeCandidate found{rule.id, rule.name, "com.apple.curl.old"};
        EXPECT_EQ(signerChangeCandidate(request, {rule}), c.candidate ? std::optional(found) : std::nullopt);
    }
}

// Unlike the signer-change search, a rule decides a flow only with its signer.
TEST(ExistingRuleAnalyzer, RuleDecidesAFlowOnlyWhenItsSignerHoldsToo) {
    const auto current = [](Rule r) { return r.subject[1] = S::signingID("com.apple.curl"), r; };
    Rule disabled = current(oldCurlRule());
    disabled.enabled = false;
    const std::pair<Rule, bool> cases[] = {
        {current(oldCurlRule()), true}, {oldCurlRule(), false}, {Rule{}, true}, {disabled, false}};
    for (const auto& [rule, decides] : cases) EXPECT_EQ(ruleDecides(rule, sampleRequest()), decides) << rule;
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

TEST(ExistingRuleAnalyzer, FirstQualifyingRuleWinsEnabledOrNot) {
    Rule unrelated = oldCurlRule(1);
    unrelated.destination = {D::hostnameExact("other.example.com")};
    Rule disabledBlock = oldCurlRule(2);
    disabledBlock.enabled = false;
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
    auto unsigned_ = request;
    unsigned_.context.matchedProcessNode->identity.signingID.reset();
    EXPECT_EQ(ruleUpdatingSigner(unsigned_, {existing}, existing.id, replacement), replacement);
}

}  // namespace
}  // namespace quillfort
