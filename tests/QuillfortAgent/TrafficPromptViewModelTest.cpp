#include "QuillfortAgent/TrafficPromptViewModel.hpp"

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

std::vector<std::string> optionIDs(const AgentPromptSession& session) {
    std::vector<std::string> ids;
    for (const auto& option : VM::hostScopeOptions(session)) ids.push_back(option.id);
    return ids;
}

TEST(TrafficPromptViewModel, HostScopeOptionsOfferSuffixesOnlyForNamesOfTwoLabelsOrMore) {
    struct Case {
        std::string host;
        std::vector<std::string> ids;
    };
    const Case cases[] = {
        {"a.b.example.net",
         {"any", "suffix:.b.example.net", "suffix:.example.net", "suffix:.net", "exact:a.b.example.net"}},
        {"10.0.0.1", {"any", "exact:10.0.0.1"}},
        {"fe80::1", {"any", "exact:fe80::1"}},
        {"intranet", {"any", "exact:intranet"}},
        {"intranet.", {"any", "exact:intranet."}},
    };
    for (const auto& c : cases) EXPECT_EQ(optionIDs(sessionFor(c.host)), c.ids) << c.host;

    const auto options = VM::hostScopeOptions(sessionFor("api.example.net"));
    EXPECT_EQ(options[1], (HostScopeOption{.id = "suffix:.example.net",
                                           .title = "*.example.net",
                                           .mode = FlowPromptHostMatchMode::suffix,
                                           .pattern = ".example.net"}));
}

TEST(TrafficPromptViewModel, EveryHostOptionSurvivesTheWriteBackAndReadBack) {
    for (const std::string host : {"a.b.example.net", "intranet", "10.0.0.1"}) {
        auto session = sessionFor(host);
        for (const auto& option : VM::hostScopeOptions(session)) {
            const auto selection = VM::selectingHostScope(session, option.id);
            ASSERT_TRUE(selection) << option.id;
            EXPECT_EQ(selection->hostMatchMode, option.mode);
            EXPECT_EQ(selection->includePortExact, session.ruleSelection.includePortExact);
            session.ruleSelection = *selection;
            EXPECT_EQ(VM::selectedHostScopeID(session), option.id);
        }
        EXPECT_FALSE(VM::selectingHostScope(session, "suffix:.elsewhere.org")) << host;
    }
}

TEST(TrafficPromptViewModel, SelectedSuffixWithoutOverrideUsesTheLastTwoLabels) {
    struct Case {
        std::string host;
        std::optional<std::string> override;
        std::string expected;
    };
    const Case cases[] = {
        {"a.b.example.net", std::nullopt, "suffix:.example.net"},
        {"intranet", std::nullopt, "suffix:.intranet"},
        {"a.b.example.net", ".b.example.net", "suffix:.b.example.net"},
    };
    for (const auto& c : cases) {
        auto session = sessionFor(c.host);
        session.ruleSelection.hostMatchMode = FlowPromptHostMatchMode::suffix;
        session.ruleSelection.hostPatternOverride = c.override;
        EXPECT_EQ(VM::selectedHostScopeID(session), c.expected) << c.host;
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

    node.identity.bundleID = "com.example.curl";
    node.identity.signingID.reset();
    EXPECT_EQ(VM::processTitle(session), "com.example.curl");
    EXPECT_EQ(VM::signerChangeSummary(session),
              "Existing rule \"Allow curl\" used signer old.curl. This process now reports unknown signer.");
}

TEST(TrafficPromptViewModel, PreviewShowsTheRuleAnAnswerWouldWrite) {
    auto session = sessionFor("api.example.com");
    session.ruleSelection = {.includeExactProcess = true,
                             .includeSigner = false,
                             .includeAncestorApp = false,
                             .includeProcessTag = false,
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

    Rule rule;
    rule.action = RuleAction::ask;
    rule.scope = RuleScope::session;
    rule.subject = {RuleSubject::bundleID("com.example"), RuleSubject::processTag(ProcessTag::node),
                    RuleSubject::ancestorBundleID("com.apple.Terminal")};
    EXPECT_EQ(VM::previewText(rule),
              "ask [bundleID(com.example), tag=node, ancestor=com.apple.Terminal] -> [any destination] scope=session");
    rule.subject.clear();
    rule.destination = {RuleDestination::portRange({8000, 8080}), RuleDestination::hostnameExact("a.example")};
    EXPECT_EQ(VM::previewText(rule), "ask [any subject] -> [portRange(8000-8080), host=a.example] scope=session");
}

TEST(TrafficPromptViewModel, DurationChipsKeepTheSideAndButtonsKeepTheDuration) {
    const auto always = VM::withDuration(P::blockOnce, RuleScope::persistent);
    EXPECT_EQ(always, P::blockPermanent);
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

TEST(TrafficPromptViewModel, PendingPillAndCancelAllStartAtTwoQueuedPrompts) {
    EXPECT_EQ(VM::pendingPillText(1), std::nullopt);
    EXPECT_FALSE(VM::showsCancelAll(1));
    EXPECT_EQ(VM::pendingPillText(2), "2 pending");
    EXPECT_TRUE(VM::showsCancelAll(3));
}

TEST(TrafficPromptViewModel, AlsoAnswersLineAppearsFromOneOtherPromptOn) {
    EXPECT_EQ(VM::alsoAnswersText(0), std::nullopt);
    EXPECT_EQ(VM::alsoAnswersText(1), "Also answers 1 other pending prompt");
    EXPECT_EQ(VM::alsoAnswersText(12), "Also answers 12 other pending prompts");
}

}  // namespace
}  // namespace quillfort
