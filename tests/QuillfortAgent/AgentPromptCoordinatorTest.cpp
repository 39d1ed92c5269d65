#include "QuillfortAgent/coordinator/AgentPromptCoordinator.hpp"

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "QuillfortAgent/coordinator/StoredPromptPreference.hpp"
#include "platform/InMemoryUserDefaults.hpp"
#include "support/LogSink.hpp"
#include "tests/QuillfortAgent/TestCoordinator.hpp"
#include "tests/testsupport/AgentSandbox.hpp"
#include "tests/testsupport/FakeFileSystem.hpp"
#include "tests/testsupport/ModelSamples.hpp"
#include "tests/testsupport/SequentialUuidSource.hpp"

namespace quillfort {
namespace {

using ::testing::ElementsAre;
using P = AgentPromptDecisionPreset;
using Env = std::map<std::string, std::string>;

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
    explicit Harness(const Env& environment = {}) {
        coordinator = testing::makeTestCoordinator(
            rules, fileSystem, defaults, {.environment = environment, .arguments = {}, .processIdentifier = 1});
    }

    void receive(const std::string& host, std::uint64_t n) {
        coordinator->receivePrompt(testing::sampleRequest(n, host), replies.callback());
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
    std::shared_ptr<testing::FakeRules> rules = std::make_shared<testing::FakeRules>();
    std::shared_ptr<testing::FakeFileSystem> fileSystem = std::make_shared<testing::FakeFileSystem>();
    Replies replies;
    std::shared_ptr<AgentPromptCoordinator> coordinator;
};

TEST(AgentPromptCoordinator, QueuesInArrivalOrderAndFocusedPromptsJumpToTheFront) {
    // Idle, then three prompts: the summary and symbol the menu shows follow.
    for (bool focus : {false, true}) {
        Harness h(focus ? Env{{"QUILLFORT_AUTOMATION_RULE_HOST", "C.example.org"}} : Env{});
        EXPECT_EQ(h.coordinator->endpointPath().value(), "/srv/group/QuillfortPromptAgent.endpoint");
        EXPECT_EQ(h.coordinator->statusSummary(), "No active prompts");
        EXPECT_EQ(h.coordinator->menuBarSymbol(), "shield");
        h.receive("a.example.org", 1);
        h.receive("b.example.org", 2);
        h.receive("c.example.org", 3);
        EXPECT_THAT(h.queuedHosts(), focus ? ElementsAre("c.example.org", "a.example.org", "b.example.org")
                                           : ElementsAre("a.example.org", "b.example.org", "c.example.org"));
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
}

TEST(AgentPromptCoordinator, CancellingAnswersBlockOnceWithoutRememberingAnything) {
    Harness h;
    for (std::uint64_t n = 1; n <= 5; ++n) h.receive(fmt::format("host{}.example.org", n), n);
    h.coordinator->setSelectedPreset(testing::sampleUuid(1), P::allowPermanent);
    h.coordinator->cancelPrompt(testing::sampleUuid(1));
    h.coordinator->cancelPrompt(testing::sampleUuid(99));  // unknown: nothing happens

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
}

TEST(AgentPromptCoordinator, LastingAnswerAlsoAnswersTheQueuedPromptsItsRuleDecides) {
    struct Row {
        P preset;
        bool wholeDomain;  // widen the host facet from the exact host to .example.org
        std::vector<std::uint64_t> answered;
    };
    const Row rows[] = {
        {P::allowOnce, true, {1}},
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
        const auto first = testing::sampleUuid(1);
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
            auto expected = lead;
            expected.promptID = testing::sampleUuid(row.answered[i]);
            // One rule, one id, for every answered prompt.
            EXPECT_EQ(h.replies.received[i], expected);
        }
        const auto action = AgentPromptDecisionPresets::action(row.preset);
        const auto scope = AgentPromptDecisionPresets::scope(row.preset);
        EXPECT_EQ(lead.action, action);
        EXPECT_EQ(lead.scope, scope);
        EXPECT_EQ(lead.persist, scope == RuleScope::persistent);
        EXPECT_EQ(lead.suggestedRule.has_value(), scope != RuleScope::temporary);
        EXPECT_EQ(h.recordTitles().size(), row.answered.size());
        EXPECT_EQ(h.coordinator->recentResponses().value()[0].detail,
                  fmt::format("{} {} for a.example.org", rawValue(action), rawValue(scope)));
        EXPECT_EQ(h.queuedHosts().size(), 5 - row.answered.size());
    }
}

TEST(AgentPromptCoordinator, ConfirmedChoiceSeedsTheNextSession) {
    Harness h;
    h.receive("api.example.net", 1);
    auto selection = h.coordinator->activePrompts().value()[0].ruleSelection;
    selection.includeProcessTag = false;
    selection.hostMatchMode = FlowPromptHostMatchMode::suffix;
    selection.hostPatternOverride = ".example.net";
    h.coordinator->setRuleSelection(testing::sampleUuid(1), selection);
    h.coordinator->resolvePrompt(testing::sampleUuid(1), P::blockSession);

    h.receive("cdn.other.org", 2);
    const auto& next = h.coordinator->activePrompts().value()[0];
    EXPECT_EQ(next.selectedPreset, P::blockSession);
    EXPECT_EQ(next.rememberedPreset, P::blockSession);
    EXPECT_FALSE(next.ruleSelection.includeProcessTag);
    EXPECT_TRUE(next.ruleSelection.includeSigner);
    EXPECT_EQ(next.ruleSelection.hostPatternOverride, ".other.org");
}

// How the reused rule is rewritten is the session's test; here, that the
// coordinator finds the rule and offers it.
TEST(AgentPromptCoordinator, ReusedSignerRuleIsRewrittenForLastingAnswers) {
    Harness h;
    Rule existing = testing::sampleRule();
    existing.subject = {RuleSubject::exactExecutable("/usr/bin/curl"), RuleSubject::signingID("com.old.curl")};
    existing.destination = {RuleDestination::hostnameExact("api.example.com")};
    h.rules->rules = {testing::sampleRule(), existing};
    h.rules->rules[0].id = testing::sampleUuid(50);

    h.receive("api.example.com", 1);
    const auto& session = h.coordinator->activePrompts().value()[0];
    ASSERT_TRUE(session.signerChangeCandidate);
    EXPECT_EQ(session.signerReuseTemplateRule, existing);
    h.coordinator->resolvePrompt(testing::sampleUuid(1), P::allowPermanent);
    EXPECT_EQ(h.replies.received.back().suggestedRule->id, existing.id);
}

}  // namespace
}  // namespace quillfort
