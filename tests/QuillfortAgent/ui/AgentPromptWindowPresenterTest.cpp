#include "QuillfortAgent/ui/AgentPromptWindowPresenter.hpp"

#include <QComboBox>
#include <QLabel>

#include "QuillfortAgent/ui/QFComponents.hpp"
#include "tests/QuillfortAgent/ui/UiHarness.hpp"

namespace quillfort::ui {
namespace {

using testing::UiHarness;

TEST(AgentPromptWindowPresenter, ShowsTheWindowForAQueueAndHidesItWhenDrained) {
    UiHarness ui;
    auto* window = ui.presenter->window();
    EXPECT_FALSE(window->isVisible());
    EXPECT_FALSE(ui.coordinator->promptWindowVisible().value());

    ui.receive("api.example.com", 1);
    ASSERT_TRUE(window->isVisible());
    // Once shown, the window stays where the user put it.
    window->move(window->pos() + QPoint(37, 23));
    const QPoint moved = window->pos();
    ui.receive("cdn.example.com", 2);
    EXPECT_EQ(window->pos(), moved);
    EXPECT_TRUE(ui.coordinator->promptWindowVisible().value());

    // Answering the head rebinds the same window to the next prompt (the
    // first one's title is in the pictures).
    ui.click(ui.find<QAbstractButton>("CancelButton"));
    EXPECT_EQ(ui.find<QLabel>("HeaderTitleLabel")->text(), "cdn.example.com:443");

    ui.click(ui.find<QAbstractButton>("CancelButton"));
    EXPECT_FALSE(window->isVisible());
    EXPECT_FALSE(ui.coordinator->promptWindowVisible().value());
    ASSERT_EQ(ui.replies.size(), 2u);
    EXPECT_EQ(ui.replies[1].second.action, RuleAction::drop);
    EXPECT_EQ(ui.replies[1].second.scope, RuleScope::temporary);
}

// The picture shows both choices disabled for the one-time answer it opens with.
TEST(TrafficPromptView, SignerChangedChoiceOpensForALastingAnswer) {
    UiHarness ui;
    Rule existing = quillfort::testing::sampleRule();
    existing.subject = {RuleSubject::exactExecutable("/usr/bin/curl"), RuleSubject::signingID("old.curl")};
    ui.rules->rules = {existing};
    ui.receive("api.example.com", 1);
    auto* reuse = ui.find<QFSelectionChip>("ReuseExistingChip");
    ui.click(ui.find<QAbstractButton>("DurationChipSession"));
    EXPECT_TRUE(reuse->isEnabled());
    ui.click(reuse);
    EXPECT_TRUE(ui.coordinator->activePrompts().value().front().reuseExistingSignerRule);
    EXPECT_TRUE(reuse->isSelected());
}

TEST(TrafficPromptView, HostPickerWritesTheScopeIntoTheSessionAndThePreview) {
    UiHarness ui;
    ui.receive("api.example.com", 1);
    auto* host = ui.find<QComboBox>("HostPicker");
    const int suffix = host->findText("*.example.com");
    ASSERT_GE(suffix, 0);
    host->activated(suffix);
    UiHarness::settle();
    const auto& selection = ui.coordinator->activePrompts().value().front().ruleSelection;
    EXPECT_EQ(selection.hostMatchMode, FlowPromptHostMatchMode::suffix);
    EXPECT_EQ(selection.hostPatternOverride, ".example.com");
    ui.click(ui.find<QAbstractButton>("DurationChipSession"));
    EXPECT_TRUE(ui.find<QLabel>("RulePreviewText")->text().contains("domain=.example.com"));
}

TEST(TrafficPromptView, DigitKeysPickTheDurationInTheirOrder) {
    UiHarness ui;
    ui.receive("api.example.com", 1);
    using P = AgentPromptDecisionPreset;
    for (const auto& [key, preset] : {std::pair{Qt::Key_3, P::allowPermanent}, std::pair{Qt::Key_1, P::allowOnce},
                                      std::pair{Qt::Key_2, P::allowSession}}) {
        QTest::keyClick(ui.presenter->window(), key);
        UiHarness::settle();
        EXPECT_EQ(ui.coordinator->activePrompts().value().front().selectedPreset, preset) << key;
    }
}

TEST(TrafficPromptView, InputInsideTheGuardTimeDoesNothing) {
    UiHarness ui;
    auto& view = ui.presenter->rootView()->promptView();
    view.setInputGuardInterval(std::chrono::hours(1));
    ui.receive("api.example.com", 1);
    ui.click(ui.find<QAbstractButton>("AllowButton"));
    ui.click(ui.find<QAbstractButton>("CancelButton"));
    QTest::keyClick(ui.presenter->window(), Qt::Key_Escape);
    UiHarness::settle();
    EXPECT_TRUE(ui.replies.empty());
    view.setInputGuardInterval(std::chrono::milliseconds(0));
    ui.click(ui.find<QAbstractButton>("AllowButton"));
    EXPECT_EQ(ui.replies.size(), 1u);
}

}  // namespace
}  // namespace quillfort::ui
