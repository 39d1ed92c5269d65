#include "QuillfortAgent/coordinator/AgentPromptDecisionPreset.hpp"

#include <gtest/gtest.h>

namespace quillfort {
namespace {

using P = AgentPromptDecisionPreset;
namespace Presets = AgentPromptDecisionPresets;

TEST(AgentPromptDecisionPreset, EachPresetHasItsTitlesActionAndScope) {
    struct Row {
        P preset;
        std::string_view title, duration;
        RuleAction action;
        RuleScope scope;
    };
    const Row rows[] = {
        {P::allowOnce, "Allow Once", "Once", RuleAction::allow, RuleScope::temporary},
        {P::allowSession, "Allow Session", "Session", RuleAction::allow, RuleScope::session},
        {P::allowPermanent, "Allow Permanently", "Always", RuleAction::allow, RuleScope::persistent},
        {P::blockOnce, "Block Once", "Once", RuleAction::drop, RuleScope::temporary},
        {P::blockSession, "Block Session", "Session", RuleAction::drop, RuleScope::session},
        {P::blockPermanent, "Block Permanently", "Always", RuleAction::drop, RuleScope::persistent},
    };
    for (std::size_t i = 0; i < std::size(rows); ++i) {
        const auto& row = rows[i];
        EXPECT_EQ(Presets::title(row.preset), row.title);
        EXPECT_EQ(Presets::durationTitle(row.preset), row.duration);
        EXPECT_EQ(Presets::action(row.preset), row.action);
        EXPECT_EQ(Presets::scope(row.preset), row.scope);
        EXPECT_EQ(Presets::preset(row.action, row.scope), row.preset);
        EXPECT_EQ(Presets::fromAutomationPreset(allCases<FlowPromptAutomationPreset>()[i]), row.preset);
    }
    for (auto scope : allCases<RuleScope>()) EXPECT_EQ(Presets::preset(RuleAction::ask, scope), P::allowOnce);
}

}  // namespace
}  // namespace quillfort
