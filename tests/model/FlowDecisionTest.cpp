#include "model/FlowDecision.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/testsupport/ModelSamples.hpp"

namespace quillfort {
namespace {

using testing::sampleUuid;

TEST(FlowDecisionShadowing, ShadowsOnlyDropsThatAPromptProduced) {
    using enum FlowDecisionAction;
    for (auto [action, reasonCode, shadowed] : {
             std::tuple{drop, "prompt_resolved_drop_", true}, {drop, "prompt_agent_", true},
             {allow, "prompt_resolved_drop_session_rule", false}, {error, "prompt_agent_", false},
             {drop, "PROMPT_AGENT_", false}, {drop, "prompt_resolved_drop", false},
             {drop, "prompt_resolved_allow_session_rule", false}, {drop, "prompt_agent", false},
         }) {
        FlowDecision decision{action, reasonCode, std::nullopt, std::nullopt, 0};
        EXPECT_EQ(FlowDecisionShadowing::shouldShadowPromptDrop(decision), shadowed) << action << " " << reasonCode;
    }
}

TEST(FlowDecision, RoundTripsWithAndWithoutIdentifiers) {
    FlowDecision bare{FlowDecisionAction::allow, "internal_quillfort_prompt_transport_allow", std::nullopt,
                      std::nullopt, 0};
    EXPECT_EQ(encodeCompact(bare),
              R"({"action":"allow","reasonCode":"internal_quillfort_prompt_transport_allow","latencyMs":0})");
    EXPECT_EQ(decodeJson<FlowDecision>(encodeCompact(bare)), bare);

    FlowDecision full{FlowDecisionAction::drop, "prompt_resolved_drop_persistent_rule", sampleUuid(7), sampleUuid(8),
                      0.1 + 0.2};
    EXPECT_EQ(encodeCompact(full),
              R"({"action":"drop","reasonCode":"prompt_resolved_drop_persistent_rule",)"
              R"("matchedRuleID":"00000000-0000-4000-8000-000000000007",)"
              R"("promptID":"00000000-0000-4000-8000-000000000008","latencyMs":0.30000000000000004})");
    EXPECT_EQ(decodeJson<FlowDecision>(encodeCompact(full)), full);
}

}  // namespace
}  // namespace quillfort
