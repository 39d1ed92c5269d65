#include "QuillfortAgent/AgentPromptCoordinator.hpp"

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "QuillfortAgent/StoredPromptPreference.hpp"
#include "platform/InMemoryUserDefaults.hpp"
#include "support/LogSink.hpp"
#include "tests/testsupport/FakeFileSystem.hpp"
#include "tests/testsupport/ModelSamples.hpp"
#include "tests/testsupport/SequentialUuidSource.hpp"

namespace quillfort {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Not;
using P = AgentPromptDecisionPreset;
using Env = std::map<std::string, std::string>;

class FixedClock final : public Clock {
public:
    [[nodiscard]] std::chrono::system_clock::time_point now() const override { return testing::sampleDate(); }
};

class FakeRules final : public RuleSnapshotReader {
public:
    [[nodiscard]] Rules currentRules() override { return std::make_shared<const std::vector<Rule>>(rules); }
    std::vector<Rule> rules;
};

FlowPromptRequest requestTo(const std::string& host, std::uint64_t n) {
    FlowPromptRequest request{
        .id = testing::uuidNumber(n), .context = testing::sampleFlowContext(), .suggestedRule = {}};
    request.context.matchedHostname = host;
    request.context.flow.hostText = host;
    return request;
}

// Every response the callbacks received, in order.
struct Replies {
    std::vector<FlowPromptResponse> received;
    AgentPromptCoordinator::ReplyCallback callback() {
        return [this](std::optional<FlowPromptResponse> response, std::optional<std::string> error) {
            EXPECT_FALSE(error);
            ASSERT_TRUE(response);
            received.push_back(*response);
        };
    }
};

struct Harness {
    explicit Harness(Env environment = {}) {
        fileSystem->setAppGroupContainer("/srv/group");
        AgentPromptCoordinator::Dependencies deps{
            .processInfo = {.environment = std::move(environment), .arguments = {}, .processIdentifier = 1},
            .userDefaults = defaults,
            .rules = rules,
            .fileSystem = fileSystem,
            .clock = std::make_shared<FixedClock>(),
            .uuids = std::make_shared<testing::SequentialUuidSource>(1000),
            .formatTime = [](auto) { return std::string("12:00:00"); },
        };
        coordinator = std::make_unique<AgentPromptCoordinator>(std::move(deps));
    }

    void receive(const std::string& host, std::uint64_t n) {
        coordinator->receivePrompt(requestTo(host, n), replies.callback());
    }

    [[nodiscard]] std::vector<std::string> queuedHosts() const {
        std::vector<std::string> hosts;
        for (const auto& s : coordinator->activePrompts().value()) hosts.push_back(*s.request.context.matchedHostname);
        return hosts;
    }
    [[nodiscard]] std::vector<std::string> recordTitles() const {
        std::vector<std::string> titles;
        for (const auto& r : coordinator->recentResponses().value()) titles.push_back(r.title);
        return titles;
    }

    ScopedLogCapture log;
    std::shared_ptr<InMemoryUserDefaults> defaults = std::make_shared<InMemoryUserDefaults>();
    std::shared_ptr<FakeRules> rules = std::make_shared<FakeRules>();
    std::shared_ptr<testing::FakeFileSystem> fileSystem = std::make_shared<testing::FakeFileSystem>();
    Replies replies;
    std::unique_ptr<AgentPromptCoordinator> coordinator;
};

TEST(AgentPromptCoordinator, StartsIdleWithTheManifestPathForDisplay) {
    Harness h;
    EXPECT_EQ(h.coordinator->endpointPath().value(), "/srv/group/QuillfortPromptAgent.endpoint");
    EXPECT_EQ(h.coordinator->listenerStatus().value(), "Starting prompt bridge...");
    EXPECT_EQ(h.coordinator->statusSummary(), "No active prompts");
    EXPECT_EQ(h.coordinator->menuBarSymbol(), "shield");

    AgentPromptCoordinator nowhere({.processInfo = {},
                                    .userDefaults = h.defaults,
                                    .rules = h.rules,
                                    .fileSystem = std::make_shared<testing::FakeFileSystem>(),
                                    .clock = {},
                                    .uuids = {},
                                    .formatTime = {}});
    EXPECT_EQ(nowhere.endpointPath().value(), "<nil>");
}

TEST(AgentPromptCoordinator, QueuesInArrivalOrderAndFocusedPromptsJumpToTheFront) {
    const std::string prioritized =
        "Prioritized automation-focused prompt 00000000-0000-0000-0000-000000000003 for "
        "c.example.org at the front of the queue.";
    for (bool focus : {false, true}) {
        Harness h(focus ? Env{{"QUILLFORT_AUTOMATION_RULE_HOST", "C.example.org"}} : Env{});
        h.receive("a.example.org", 1);
        h.receive("b.example.org", 2);
        h.receive("c.example.org", 3);
        if (focus) {
            EXPECT_THAT(h.queuedHosts(), ElementsAre("c.example.org", "a.example.org", "b.example.org"));
        } else {
            EXPECT_THAT(h.queuedHosts(), ElementsAre("a.example.org", "b.example.org", "c.example.org"));
        }
        EXPECT_EQ(h.log.contains(prioritized), focus);
        EXPECT_TRUE(h.log.contains("Queued prompt 00000000-0000-0000-0000-000000000001 for a.example.org."));
        EXPECT_EQ(h.coordinator->statusSummary(), "3 prompts awaiting a decision");
        EXPECT_EQ(h.coordinator->menuBarSymbol(), "shield.lefthalf.filled");
        EXPECT_TRUE(h.replies.received.empty());
    }
}

TEST(AgentPromptCoordinator, DirectiveAnswersMatchingPromptsAtOnceAndQueuesTheRest) {
    Harness h(Env{{"QUILLFORT_AGENT_AUTOMATION_RESPONSE", "allow-once"},
                  {"QUILLFORT_AUTOMATION_RULE_HOST", "a.example.org"}});
    h.receive("a.example.org", 1);
    h.receive("b.example.org", 2);

    ASSERT_EQ(h.replies.received.size(), 1u);
    EXPECT_EQ(h.replies.received[0].action, RuleAction::allow);
    EXPECT_EQ(h.replies.received[0].scope, RuleScope::temporary);
    EXPECT_THAT(h.recordTitles(), ElementsAre("Auto-resolved a.example.org"));
    EXPECT_THAT(h.queuedHosts(), ElementsAre("b.example.org"));
    EXPECT_EQ(h.coordinator->statusSummary(), "1 prompt awaiting a decision");
    EXPECT_TRUE(h.log.contains("Auto-resolved prompt 00000000-0000-0000-0000-000000000001 using preset allow-once."));
}

TEST(AgentPromptCoordinator, AnswersFollowThePresetTable) {
    struct Row {
        P preset;
        RuleAction action;
        RuleScope scope;
        bool lasting;
    };
    for (const auto& row : {Row{P::allowOnce, RuleAction::allow, RuleScope::temporary, false},
                            Row{P::allowSession, RuleAction::allow, RuleScope::session, true},
                            Row{P::allowPermanent, RuleAction::allow, RuleScope::persistent, true},
                            Row{P::blockOnce, RuleAction::drop, RuleScope::temporary, false},
                            Row{P::blockSession, RuleAction::drop, RuleScope::session, true},
                            Row{P::blockPermanent, RuleAction::drop, RuleScope::persistent, true}}) {
        Harness h;
        h.receive("a.example.org", 1);
        h.receive("b.example.org", 2);
        h.coordinator->resolvePrompt(testing::uuidNumber(2), row.preset);

        ASSERT_EQ(h.replies.received.size(), 1u) << row.preset;
        const auto& response = h.replies.received[0];
        EXPECT_EQ(response.promptID, testing::uuidNumber(2));
        EXPECT_EQ(response.action, row.action) << row.preset;
        EXPECT_EQ(response.scope, row.scope) << row.preset;
        EXPECT_EQ(response.persist, row.scope == RuleScope::persistent) << row.preset;
        EXPECT_EQ(response.ruleSelection.has_value(), row.lasting) << row.preset;
        ASSERT_EQ(response.suggestedRule.has_value(), row.lasting) << row.preset;
        if (row.lasting) {
            EXPECT_EQ(response.suggestedRule->scope, row.scope);
        }
        EXPECT_THAT(h.queuedHosts(), ElementsAre("a.example.org"));
        EXPECT_THAT(h.recordTitles(), ElementsAre("Resolved b.example.org"));
        EXPECT_EQ(h.coordinator->recentResponses().value()[0].detail,
                  fmt::format("{} {} for b.example.org", rawValue(row.action), rawValue(row.scope)));
        EXPECT_TRUE(h.log.contains(
            fmt::format("Resolved prompt 00000000-0000-0000-0000-000000000002 as {}.", rawValue(row.preset))));
    }
}

TEST(AgentPromptCoordinator, ObserversSeeThePresetChangeAndThenTheRemoval) {
    Harness h;
    h.receive("a.example.org", 1);
    std::vector<std::vector<P>> seen;
    auto subscription = h.coordinator->activePrompts().subscribe([&](const auto& sessions) {
        std::vector<P> presets;
        for (const auto& s : sessions) presets.push_back(s.selectedPreset);
        seen.push_back(presets);
    });
    h.receive("b.example.org", 2);
    h.coordinator->resolvePrompt(testing::uuidNumber(1), P::blockSession);
    h.coordinator->cancelPrompt(testing::uuidNumber(2));

    EXPECT_THAT(seen, ElementsAre(ElementsAre(P::allowOnce, P::allowOnce), ElementsAre(P::blockSession, P::allowOnce),
                                  ElementsAre(P::allowOnce), ElementsAre(P::blockOnce), ElementsAre()));
}

TEST(AgentPromptCoordinator, CancellingAnswersBlockOnceWithoutRememberingAnything) {
    Harness h;
    for (std::uint64_t n = 1; n <= 5; ++n) h.receive(fmt::format("host{}.example.org", n), n);
    auto changed = h.coordinator->activePrompts().value()[0].ruleSelection;
    changed.includePortExact = false;
    h.coordinator->setRuleSelection(testing::uuidNumber(1), changed);
    h.coordinator->cancelPrompt(testing::uuidNumber(1));
    h.coordinator->cancelPrompt(testing::uuidNumber(99));  // unknown: nothing happens
    const auto logged = h.log.records().size();

    // A second request with an id already queued: two sessions, one callback.
    h.receive("host5.example.org", 5);
    h.coordinator->cancelAllPrompts();

    ASSERT_EQ(h.replies.received.size(), 5u);
    for (const auto& response : h.replies.received) {
        EXPECT_EQ(response.action, RuleAction::drop);
        EXPECT_EQ(response.scope, RuleScope::temporary);
        EXPECT_FALSE(response.ruleSelection);
        EXPECT_FALSE(response.suggestedRule);
    }
    EXPECT_THAT(h.recordTitles(),
                ElementsAre("Resolved host5.example.org", "Resolved host4.example.org", "Resolved host3.example.org",
                            "Resolved host2.example.org", "Resolved host1.example.org"));
    EXPECT_TRUE(h.coordinator->activePrompts().value().empty());
    EXPECT_FALSE(h.defaults->data(StoredPromptPreference::userDefaultsKey));
    const auto records = h.log.records();
    ASSERT_EQ(records.size(), logged + 2);  // the re-queued prompt and the cancel-all line
    EXPECT_EQ(records.back().message, "Cancelled all queued prompts without persisting new rules.");

    h.coordinator->cancelAllPrompts();
    EXPECT_EQ(h.log.records().size(), records.size());
}

TEST(AgentPromptCoordinator, LastingAnswerAlsoAnswersTheQueuedPromptsItsRuleDecides) {
    struct Row {
        P preset;
        bool wholeDomain;  // widen the host facet from the exact host to .example.org
        std::vector<std::uint64_t> answered;
    };
    const Row rows[] = {
        {P::allowOnce, false, {1}},
        {P::blockOnce, true, {1}},
        {P::allowSession, false, {1, 3, 5}},
        {P::blockPermanent, true, {1, 2, 3, 5}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(fmt::format("{} wholeDomain={}", rawValue(row.preset), row.wholeDomain));
        Harness h;
        for (const auto& [host, n] : std::vector<std::pair<std::string, std::uint64_t>>{
                 {"a.example.org", 1}, {"b.example.org", 2}, {"a.example.org", 3}, {"a.example.net", 4},
                 {"a.example.org", 5}}) {
            h.receive(host, n);
        }
        const auto first = testing::uuidNumber(1);
        if (row.wholeDomain) {
            auto selection = h.coordinator->activePrompts().value()[0].ruleSelection;
            selection.hostMatchMode = FlowPromptHostMatchMode::suffix;
            selection.hostPatternOverride = ".example.org";
            h.coordinator->setRuleSelection(first, selection);
        }
        h.coordinator->setSelectedPreset(first, row.preset);
        EXPECT_EQ(h.coordinator->alsoAnsweredCount(first), row.answered.size() - 1);

        h.coordinator->resolvePrompt(first);

        ASSERT_EQ(h.replies.received.size(), row.answered.size());
        const auto& lead = h.replies.received[0];
        for (std::size_t i = 0; i < row.answered.size(); ++i) {
            const auto& response = h.replies.received[i];
            EXPECT_EQ(response.promptID, testing::uuidNumber(row.answered[i]));
            EXPECT_EQ(response.action, lead.action);
            EXPECT_EQ(response.scope, lead.scope);
            EXPECT_EQ(response.suggestedRule, lead.suggestedRule) << "one rule, one id, for every answered prompt";
            EXPECT_TRUE(h.log.contains(
                fmt::format("Resolved prompt {} as {}.", response.promptID.uppercaseString(), rawValue(row.preset))));
        }
        EXPECT_EQ(h.recordTitles().size(), row.answered.size());
        EXPECT_EQ(h.queuedHosts().size(), 5 - row.answered.size());
    }
}

TEST(AgentPromptCoordinator, KeepsTheSixNewestAnswers) {
    Harness h;
    for (std::uint64_t n = 1; n <= 7; ++n) {
        h.receive(fmt::format("host{}.example.org", n), n);
        h.coordinator->resolvePrompt(testing::uuidNumber(n));
    }
    EXPECT_THAT(h.recordTitles(),
                ElementsAre("Resolved host7.example.org", "Resolved host6.example.org", "Resolved host5.example.org",
                            "Resolved host4.example.org", "Resolved host3.example.org", "Resolved host2.example.org"));
    EXPECT_EQ(h.coordinator->recentResponses().value()[0].resolvedAt, "12:00:00");
}

TEST(AgentPromptCoordinator, ConfirmedChoiceSeedsTheNextSession) {
    Harness h;
    h.receive("api.example.net", 1);
    auto selection = h.coordinator->activePrompts().value()[0].ruleSelection;
    selection.includeProcessTag = false;
    selection.hostMatchMode = FlowPromptHostMatchMode::suffix;
    selection.hostPatternOverride = ".example.net";
    h.coordinator->setRuleSelection(testing::uuidNumber(1), selection);
    h.coordinator->resolvePrompt(testing::uuidNumber(1), P::blockSession);

    const auto stored = h.defaults->data(StoredPromptPreference::userDefaultsKey);
    ASSERT_TRUE(stored);
    EXPECT_THAT(*stored, Not(HasSubstr("includeSigner")));
    EXPECT_THAT(*stored, HasSubstr(R"("preset":"blockSession")"));

    h.receive("cdn.other.org", 2);
    const auto& next = h.coordinator->activePrompts().value()[0];
    EXPECT_EQ(next.selectedPreset, P::blockSession);
    EXPECT_EQ(next.rememberedPreset, P::blockSession);
    EXPECT_FALSE(next.ruleSelection.includeProcessTag);
    EXPECT_TRUE(next.ruleSelection.includeSigner);
    EXPECT_EQ(next.ruleSelection.hostPatternOverride, ".other.org");
}

TEST(AgentPromptCoordinator, ReusedSignerRuleIsRewrittenForLastingAnswers) {
    Harness h;
    Rule existing = testing::sampleRule();
    existing.subject = {RuleSubject::exactExecutable("/usr/bin/curl"), RuleSubject::signingID("com.old.curl")};
    existing.destination = {RuleDestination::hostnameExact("api.example.com")};
    h.rules->rules = {testing::sampleRule(), existing};
    h.rules->rules[0].id = testing::uuidNumber(50);

    // Whether a one-time answer carries a rule is the session's own test.
    h.receive("api.example.com", 1);
    const auto& session = h.coordinator->activePrompts().value()[0];
    ASSERT_TRUE(session.signerChangeCandidate);
    EXPECT_EQ(session.signerChangeCandidate->previousSigner, "com.old.curl");
    EXPECT_EQ(session.signerReuseTemplateRule, existing);
    EXPECT_TRUE(session.reuseExistingSignerRule);
    h.coordinator->resolvePrompt(testing::uuidNumber(1), P::allowPermanent);

    const auto& rule = h.replies.received.back().suggestedRule;
    ASSERT_TRUE(rule);
    EXPECT_EQ(rule->id, existing.id);
    EXPECT_THAT(rule->subject, ::testing::Contains(RuleSubject::signingID("com.apple.curl")));
    EXPECT_THAT(rule->subject, Not(::testing::Contains(RuleSubject::signingID("com.old.curl"))));
}

TEST(AgentPromptCoordinator, PreviewPromptsAreQueuedAsRequestedAndAnsweredLikeAnyOther) {
    Harness h(Env{{"QUILLFORT_AUTOMATION_RULE_HOST", "focus.example.org"}});
    h.receive("a.example.org", 1);
    h.coordinator->seedPreviewPromptIfRequested({.environment = {{"QUILLFORT_AGENT_AUTOMATION_PREVIEW_PROMPT", "true"}},
                                                 .arguments = {},
                                                 .processIdentifier = 1});
    EXPECT_EQ(h.coordinator->activePrompts().value().size(), 1u);

    h.coordinator->seedPreviewPromptIfRequested(
        {.environment = {{"QUILLFORT_AUTOMATION_RULE_HOST", "focus.example.org"}},
         .arguments = {"quillfort-agent", "--automation-preview-prompt", "--automation-preview-queue-count", " 2 "},
         .processIdentifier = 1});
    EXPECT_THAT(h.queuedHosts(), ElementsAre("focus.example.org", "focus.example.org", "a.example.org"));
    const auto previewID = h.coordinator->activePrompts().value()[0].id();
    EXPECT_NE(previewID, h.coordinator->activePrompts().value()[1].id());
    EXPECT_TRUE(
        h.log.contains(fmt::format("Queued preview prompt {} for focus.example.org.", previewID.uppercaseString())));

    // The two previews are the same flow, so one lasting answer settles both.
    h.coordinator->resolvePrompt(previewID, P::allowPermanent);
    EXPECT_THAT(h.recordTitles(), ElementsAre("Resolved focus.example.org", "Resolved focus.example.org"));
    EXPECT_THAT(h.queuedHosts(), ElementsAre("a.example.org"));
    EXPECT_EQ(StoredPromptPreference::load(*h.defaults)->preset, P::allowPermanent);
}

}  // namespace
}  // namespace quillfort
