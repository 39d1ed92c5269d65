#include "QuillfortAgent/AgentPromptDecisionPreset.hpp"

#include <gtest/gtest.h>

namespace quillfort {
namespace {

using P = AgentPromptDecisionPreset;
namespace Presets = AgentPromptDecisionPresets;

TEST(AgentPromptDecisionPreset, EachPresetHasItsTitlesActionAndScope) {
    struct Row {
        P preset;
        std::string_view raw, title, duration;
        RuleAction action;
        RuleScope scope;
    };
    const Row rows[] = {
        {P::allowOnce, "allowOnce", "Allow Once", "Once", RuleAction::allow, RuleScope::temporary},
        {P::allowSession, "allowSession", "Allow Session", "Session", RuleAction::allow, RuleScope::session},
        {P::allowPermanent, "allowPermanent", "Allow Permanently", "Always", RuleAction::allow, RuleScope::persistent},
        {P::blockOnce, "blockOnce", "Block Once", "Once", RuleAction::drop, RuleScope::temporary},
        {P::blockSession, "blockSession", "Block Session", "Session", RuleAction::drop, RuleScope::session},
        {P::blockPermanent, "blockPermanent", "Block Permanently", "Always", RuleAction::drop, RuleScope::persistent},
    };
    for (std::size_t i = 0; i < std::size(rows); ++i) {
        const auto& row = rows[i];
        EXPECT_EQ(allCases<P>()[i], row.preset);
        EXPECT_EQ(rawValue(row.preset), row.raw);
        EXPECT_EQ(Presets::title(row.preset), row.title);
        EXPECT_EQ(Presets::durationTitle(row.preset), row.duration);
        EXPECT_EQ(Presets::action(row.preset), row.action);
        EXPECT_EQ(Presets::scope(row.preset), row.scope);
        EXPECT_EQ(Presets::persist(row.preset), row.scope == RuleScope::persistent);
        EXPECT_EQ(Presets::preset(row.action, row.scope), row.preset);
        EXPECT_EQ(Presets::fromAutomationPreset(allCases<FlowPromptAutomationPreset>()[i]), row.preset);
    }
    for (auto scope : allCases<RuleScope>()) EXPECT_EQ(Presets::preset(RuleAction::ask, scope), P::allowOnce);
}

TEST(AgentPromptDecisionPreset, AutomationPresetReadsTheResponseVariable) {
    auto read = [](std::optional<std::string> value) {
        ProcessInfo info;
        if (value) info.environment["QUILLFORT_AGENT_AUTOMATION_RESPONSE"] = *value;
        return Presets::automationPreset(info);
    };
    EXPECT_EQ(read(" Block-Session\n"), P::blockSession);
    EXPECT_EQ(read("allow-permanent"), P::allowPermanent);
    EXPECT_EQ(read("allowOnce"), std::nullopt);
    EXPECT_EQ(read("allow"), std::nullopt);
    EXPECT_EQ(read(std::nullopt), std::nullopt);
}

}  // namespace
}  // namespace quillfort
