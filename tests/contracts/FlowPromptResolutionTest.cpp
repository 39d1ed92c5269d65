#include "contracts/FlowPromptResolution.hpp"

#include <gtest/gtest.h>

#include "tests/contracts/FlowPromptSamples.hpp"
#include "tests/testsupport/SequentialUuidSource.hpp"

namespace quillfort {
namespace {

using testing::sampleRequest;
using testing::SequentialUuidSource;
using testing::uuidNumber;

const Date kEarlier = Date{std::chrono::seconds{1772366400}};  // 2026-03-01T12:00:00Z
const Date kLater = kEarlier + std::chrono::hours{1};

Rule ruleNumbered(std::uint64_t n, std::string name = "old") {
    Rule rule;
    rule.id = uuidNumber(n);
    rule.name = std::move(name);
    return rule;
}

enum class RuleSource { suggestedRule, ruleSelection, neither };

FlowPromptResponse answer(RuleAction action, RuleScope scope, RuleSource source) {
    FlowPromptResponse response{sampleRequest().id, action, scope, scope == RuleScope::persistent, {}, {}};
    if (source == RuleSource::suggestedRule) response.suggestedRule = ruleNumbered(500, "suggested");
    if (source == RuleSource::ruleSelection) response.ruleSelection.emplace().includeExactProcess = true;
    return response;
}

// Which answers leave a rule behind, for every action; the reason code tells
// the filter the action, the answer's scope and whether a rule resulted.
TEST(FlowPromptResolution, ReasonCodeForEveryActionScopeAndRuleOutcome) {
    struct Case {
        RuleScope scope;
        RuleSource source;
        bool persistSessionRules;
        std::string ending;  // after "prompt_resolved_<action>_"
    };
    const Case cases[] = {
        {RuleScope::temporary, RuleSource::suggestedRule, true, "temporary_decision"},
        {RuleScope::session, RuleSource::suggestedRule, true, "session_rule"},
        {RuleScope::session, RuleSource::ruleSelection, true, "session_rule"},
        {RuleScope::session, RuleSource::neither, true, "session_decision"},
        {RuleScope::session, RuleSource::suggestedRule, false, "session_decision"},
        {RuleScope::persistent, RuleSource::suggestedRule, false, "persistent_rule"},
        {RuleScope::persistent, RuleSource::neither, true, "persistent_decision"},
    };
    const std::tuple<RuleAction, FlowDecisionAction, std::string> actions[] = {
        {RuleAction::allow, FlowDecisionAction::allow, "allow"},
        {RuleAction::drop, FlowDecisionAction::drop, "drop"},
        {RuleAction::ask, FlowDecisionAction::prompt, "prompt"},
    };
    const auto request = sampleRequest();
    for (const auto& c : cases) {
        for (const auto& [ruleAction, decisionAction, word] : actions) {
            const std::string reason = "prompt_resolved_" + word + "_" + c.ending;
            SCOPED_TRACE(reason + " from source " + std::to_string(static_cast<int>(c.source)));
            SequentialUuidSource ids(900);
            const auto outcome =
                FlowPromptResolution::resolve(request, answer(ruleAction, c.scope, c.source),
                                              RuleSnapshotEnvelope{kEarlier, {ruleNumbered(1)}},
                                              c.persistSessionRules, RuleOrigin::promptResolved, kLater, ids);
            const bool makesRule = c.ending.ends_with("_rule");
            std::optional<Uuid> ruleID;
            if (makesRule) ruleID = c.source == RuleSource::suggestedRule ? uuidNumber(500) : uuidNumber(900);
            EXPECT_EQ(outcome.decision, (FlowDecision{decisionAction, reason, ruleID, request.id, 0}));
            EXPECT_EQ(outcome.updatedSnapshot.has_value(), makesRule);
            EXPECT_EQ(outcome.persistedRule.has_value(), makesRule);
        }
    }
}

TEST(FlowPromptResolution, StampsAnswerOnRuleAndDefaultsOnlyZeroPriority) {
    for (const auto& [priority, expected] : {std::pair{0, 10000}, std::pair{5, 5}}) {
        SCOPED_TRACE("priority " + std::to_string(priority));
        Rule suggested = ruleNumbered(42, "Allow curl");
        suggested.scope = RuleScope::session;
        suggested.priority = priority;
        auto response = answer(RuleAction::drop, RuleScope::persistent, RuleSource::ruleSelection);
        response.persist = false;  // the scope decides, not this flag
        response.suggestedRule = suggested;

        SequentialUuidSource ids(900);
        const auto outcome = FlowPromptResolution::resolve(sampleRequest(), response, RuleSnapshotEnvelope{},
                                                           false, RuleOrigin::permissiveLearned, kLater, ids);
        Rule stamped = suggested;
        stamped.action = RuleAction::drop;
        stamped.scope = RuleScope::persistent;
        stamped.origin = RuleOrigin::permissiveLearned;
        stamped.priority = expected;
        EXPECT_EQ(outcome.persistedRule, stamped);
        EXPECT_EQ(ids.upcoming(), 900u) << "a suggested rule wins over the selection; nothing is built";
    }
}

// Every rule of the answer's id gives way to it, the rest keep their order.
TEST(FlowPromptResolution, MergeReplacesRulesOfSameIdAndAppendsAtEnd) {
    const RuleSnapshotEnvelope existing{kEarlier, {ruleNumbered(2), ruleNumbered(1), ruleNumbered(2), ruleNumbered(3)}};
    auto response = answer(RuleAction::allow, RuleScope::persistent, RuleSource::neither);
    response.suggestedRule = ruleNumbered(2, "new");
    const auto outcome =
        FlowPromptResolution::resolve(sampleRequest(), response, existing, true, RuleOrigin::promptResolved, kLater);
    ASSERT_TRUE(outcome.persistedRule.has_value());
    EXPECT_EQ(outcome.persistedRule->name, "new");
    EXPECT_EQ(outcome.updatedSnapshot,
              (RuleSnapshotEnvelope{kLater, {ruleNumbered(1), ruleNumbered(3), *outcome.persistedRule}}));
}

TEST(FlowPromptResolution, PreferredSnapshotTakesLaterOneAndSharedOnTie) {
    const RuleSnapshotEnvelope vendorEarly{kEarlier, {ruleNumbered(1)}}, vendorLate{kLater, {ruleNumbered(1)}};
    const RuleSnapshotEnvelope sharedEarly{kEarlier, {ruleNumbered(2)}}, sharedLate{kLater, {ruleNumbered(2)}};
    const Date now = kLater + std::chrono::hours{5};
    using Snapshot = std::optional<RuleSnapshotEnvelope>;
    const std::tuple<Snapshot, Snapshot, RuleSnapshotEnvelope> cases[] = {
        {vendorLate, sharedEarly, vendorLate},   {vendorEarly, sharedLate, sharedLate},
        {vendorLate, sharedLate, sharedLate},    {vendorEarly, std::nullopt, vendorEarly},
        {std::nullopt, sharedEarly, sharedEarly}, {std::nullopt, std::nullopt, RuleSnapshotEnvelope{now, {}}},
    };
    for (const auto& [vendor, shared, expected] : cases) {
        EXPECT_EQ(FlowPromptResolution::preferredRuleSnapshot(vendor, shared, now), expected);
    }
}

}  // namespace
}  // namespace quillfort
