#include "QuillfortAgent/coordinator/TrafficPromptViewModel.hpp"

#include <gtest/gtest.h>

#include "tests/testsupport/ModelSamples.hpp"

namespace quillfort {
namespace {

namespace VM = TrafficPromptViewModel;
using P = AgentPromptDecisionPreset;

AgentPromptSession sessionFor(std::optional<std::string> host) {
    AgentPromptSession session;
    session.request = {.id = testing::sampleUuid(7), .context = testing::sampleFlowContext(), .suggestedRule = {}};
    session.request.context.matchedHostname = std::move(host);
    session.request.context.flow.hostText.reset();
    session.request.context.flow.remoteEndpoint = NetworkEndpoint{.host = "93.184.216.34", .port = 443};
    return session;
}

// Suffixes only for names of two labels or more; every option offered, once
// chosen, reads back as the chosen one, and no other can be chosen.
TEST(TrafficPromptViewModel, HostScopeOptionsSurviveTheWriteBackAndReadBack) {
    struct Case {
        std::string host;
        std::vector<std::string> ids;
    };
    const Case cases[] = {
        {"a.b.example.net",
         {"any", "suffix:.b.example.net", "suffix:.example.net", "suffix:.net", "exact:a.b.example.net"}},
        {"10.0.0.1", {"any", "exact:10.0.0.1"}},
        {"intranet.", {"any", "exact:intranet."}},
    };
    for (const auto& c : cases) {
        auto session = sessionFor(c.host);
        std::vector<std::string> ids;
        for (const auto& option : VM::hostScopeOptions(session)) {
            ids.push_back(option.id);
            const auto selection = VM::selectingHostScope(session, option.id);
            ASSERT_TRUE(selection) << option.id;
            EXPECT_EQ(selection->hostMatchMode, option.mode);
            EXPECT_EQ(selection->includePortExact, session.ruleSelection.includePortExact);
            session.ruleSelection = *selection;
            EXPECT_EQ(VM::selectedHostScopeID(session), option.id);
        }
        EXPECT_EQ(ids, c.ids);
        EXPECT_FALSE(VM::selectingHostScope(session, "suffix:.elsewhere.org")) << c.host;
    }
    EXPECT_EQ(VM::hostScopeOptions(sessionFor("api.example.net"))[1],
              (HostScopeOption{.id = "suffix:.example.net",
                               .title = "*.example.net",
                               .mode = FlowPromptHostMatchMode::suffix,
                               .pattern = ".example.net"}));
}

// A suffix chosen elsewhere (a remembered choice) without a pattern of its own.
TEST(TrafficPromptViewModel, SelectedSuffixWithoutOverrideUsesTheLastTwoLabels) {
    for (const auto& [host, expected] : {std::pair{"a.b.example.net", "suffix:.example.net"},
                                         std::pair{"intranet", "suffix:.intranet"}}) {
        auto session = sessionFor(host);
        session.ruleSelection.hostMatchMode = FlowPromptHostMatchMode::suffix;
        EXPECT_EQ(VM::selectedHostScopeID(session), expected) << host;
    }
}

TEST(TrafficPromptViewModel, DerivedTextsFallBackWhenTheFlowSaysLittle) {
    auto bare = sessionFor(std::nullopt);
    bare.request.context.flow.remoteEndpoint.reset();
    bare.request.context.flow.port.reset();
    bare.request.context.flow.transportProtocol = TransportProtocol::unknown;
    bare.request.context.matchedProcessNode.reset();
    bare.request.context.ancestorChain.clear();
    const auto texts = VM::derivedTexts(bare);
    EXPECT_EQ(texts.headerTitle, "unknown:0");
    EXPECT_EQ(texts.proto, "UNKNOWN");
    EXPECT_EQ(texts.processTitle, "Unknown");
    EXPECT_EQ(texts.processPath, "No path");
    EXPECT_EQ(texts.signerTitle, "unknown");
    EXPECT_EQ(texts.tagsTitle, "none");
    EXPECT_EQ(texts.ancestorSummary, "none");
    EXPECT_FALSE(texts.rememberedTitle);
    EXPECT_FALSE(texts.signerChangeSummary);
}

TEST(TrafficPromptViewModel, ProcessTextsNameTheProcessAndItsAncestry) {
    auto session = sessionFor("api.example.com");
    auto& node = *session.request.context.matchedProcessNode;
    node.tags = {ProcessTag::terminal, ProcessTag::git, ProcessTag::shell};
    ProcessNode terminal;
    terminal.identity.bundleID = "com.apple.Terminal";
    terminal.identity.executablePath = "/System/Applications/Utilities/Terminal.app/Contents/MacOS/Terminal";
    ProcessNode zsh;
    zsh.identity.executablePath = "/bin/zsh";
    session.request.context.ancestorChain = {terminal, zsh};
    session.rememberedPreset = P::allowSession;
    session.signerChangeCandidate = FlowPromptSignerChangeCandidate{
        .existingRuleID = testing::sampleUuid(3), .existingRuleName = "Allow curl", .previousSigner = "old.curl"};

    const auto texts = VM::derivedTexts(session);
    EXPECT_EQ(texts.headerTitle, "api.example.com:443");
    EXPECT_EQ(texts.proto, "TCP");
    EXPECT_EQ(texts.processTitle, "curl");
    EXPECT_EQ(texts.signerTitle, "com.apple.curl");
    EXPECT_EQ(texts.tagsTitle, "git, shell, terminal");
    EXPECT_EQ(texts.ancestorSummary, "com.apple.Terminal \u2192 zsh");
    EXPECT_EQ(texts.rememberedTitle, "Remembered: Allow Session");
    EXPECT_EQ(texts.signerChangeSummary,
              "Existing rule \"Allow curl\" used signer old.curl. This process now reports com.apple.curl.");
}

TEST(TrafficPromptViewModel, PreviewShowsTheRuleAnAnswerWouldWrite) {
    auto session = sessionFor("api.example.com");
    session.ruleSelection = {.includeExactProcess = true,
                             .hostMatchMode = FlowPromptHostMatchMode::suffix,
                             .hostPatternOverride = ".example.com",
                             .includePortExact = true,
                             .includeProtocol = true};
    session.selectedPreset = P::allowOnce;
    EXPECT_EQ(VM::previewText(session), "Once duration \u2014 no reusable rule.");
    session.selectedPreset = P::blockPermanent;
    EXPECT_EQ(VM::previewText(session),
              "drop [exec=/usr/bin/curl, signer=com.apple.curl] -> [domain=.example.com, port=443, proto=tcp] "
              "scope=persistent");
}

TEST(TrafficPromptViewModel, DurationChipsKeepTheSideAndButtonsKeepTheDuration) {
    EXPECT_EQ(VM::withDuration(P::blockOnce, RuleScope::persistent), P::blockPermanent);
    EXPECT_EQ(VM::withDuration(P::allowPermanent, RuleScope::session), P::allowSession);
    EXPECT_EQ(VM::answering(P::allowPermanent, RuleAction::drop), P::blockPermanent);
    EXPECT_EQ(VM::answering(P::blockSession, RuleAction::allow), P::allowSession);
    EXPECT_EQ(VM::blockTitle(P::allowPermanent), "Block Always");
    EXPECT_EQ(VM::allowTitle(P::blockOnce), "Allow Once");

    auto session = sessionFor("api.example.com");
    session.selectedPreset = P::allowOnce;
    EXPECT_FALSE(VM::derivedTexts(session).signerChoiceEnabled);
    session.selectedPreset = P::allowSession;
    EXPECT_TRUE(VM::derivedTexts(session).signerChoiceEnabled);
}

TEST(TrafficPromptViewModel, QueueTextsAppearAtTheirThresholds) {
    EXPECT_EQ(VM::pendingPillText(1), std::nullopt);
    EXPECT_FALSE(VM::showsCancelAll(1));
    EXPECT_EQ(VM::pendingPillText(2), "2 pending");
    EXPECT_TRUE(VM::showsCancelAll(2));
    EXPECT_EQ(VM::alsoAnswersText(0), std::nullopt);
    EXPECT_EQ(VM::alsoAnswersText(1), "Also answers 1 other pending prompt");
    EXPECT_EQ(VM::alsoAnswersText(12), "Also answers 12 other pending prompts");
}

}  // namespace
}  // namespace quillfort
