#include "QuillfortAgent/coordinator/AgentPromptSession.hpp"

#include <algorithm>

#include <gtest/gtest.h>

#include "contracts/FlowPromptRuleBuilder.hpp"
#include "tests/testsupport/ModelSamples.hpp"
#include "tests/testsupport/SequentialUuidSource.hpp"

namespace quillfort {
namespace {

using P = AgentPromptDecisionPreset;

AgentPromptSession sampleSession(P preset) {
    AgentPromptSession session;
    session.request = {.id = testing::uuidNumber(7), .context = testing::sampleFlowContext(), .suggestedRule = {}};
    session.selectedPreset = preset;
    session.ruleSelection = FlowPromptRuleBuilder::defaultSelection(session.request);
    return session;
}

bool hasSigner(const Rule& rule) {
    return std::any_of(rule.subject.begin(), rule.subject.end(),
                       [](const RuleSubject& s) { return s.kind == RuleSubject::Kind::signingID; });
}

TEST(AgentPromptSession, SignerFollowsTheExactProcessChoice) {
    struct Case {
        bool exactProcess, selectionSigner;
        std::optional<std::string> signingID;
        bool expected;
    };
    for (const auto& c : {Case{true, false, "com.apple.curl", true}, Case{false, true, "com.apple.curl", false},
                          Case{true, true, std::nullopt, false}}) {
        testing::SequentialUuidSource ids;
        auto session = sampleSession(P::allowPermanent);
        session.request.context.matchedProcessNode->identity.signingID = c.signingID;
        session.ruleSelection.includeExactProcess = c.exactProcess;
        session.ruleSelection.includeSigner = c.selectionSigner;
        const auto rule = session.suggestedRule(ids);
        ASSERT_TRUE(rule);
        EXPECT_EQ(hasSigner(*rule), c.expected) << c.exactProcess << c.selectionSigner << c.signingID.has_value();
    }
}

TEST(AgentPromptSession, ReusingAnExistingRuleRewritesItsSigner) {
    testing::SequentialUuidSource ids;
    Rule existing = testing::sampleRule();
    existing.subject = {RuleSubject::exactExecutable("/usr/bin/curl"), RuleSubject::signingID("com.old.curl")};
    for (auto preset : {P::blockOnce, P::allowSession}) {
        auto session = sampleSession(preset);
        session.signerReuseTemplateRule = existing;
        session.reuseExistingSignerRule = true;
        const auto rule = session.suggestedRule(ids);
        if (preset == P::blockOnce) {
            EXPECT_FALSE(rule) << "a one-time answer makes no rule, reused or not";
            continue;
        }
        ASSERT_TRUE(rule) << preset;
        EXPECT_EQ(rule->id, existing.id);
        EXPECT_EQ(rule->name, existing.name);
        EXPECT_NE(std::find(rule->subject.begin(), rule->subject.end(), RuleSubject::signingID("com.apple.curl")),
                  rule->subject.end());

        session.reuseExistingSignerRule = false;
        EXPECT_EQ(session.suggestedRule(ids).has_value(), preset == P::allowSession);
    }
}

}  // namespace
}  // namespace quillfort
