#include "QuillfortAgent/ui/AgentPromptWindowPresenter.hpp"

#include <QComboBox>
#include <QLabel>

#include "tests/QuillfortAgent/ui/UiHarness.hpp"

namespace quillfort::ui {
namespace {

using testing::UiHarness;

TEST(AgentPromptWindowPresenter, ShowsTheWindowForAQueueAndHidesItWhenDrained) {
    UiHarness ui;
    auto* window = ui.presenter->window();
    EXPECT_FALSE(window->isVisible());

    ui.receive("api.example.com", 1);
    ASSERT_TRUE(window->isVisible());
    EXPECT_EQ(window->size(), AgentPromptWindowPresenter::promptWindowSize);
    // Once shown, the window keeps the place and size the user gave it.
    window->move(window->pos() + QPoint(37, 23));
    window->resize(820, 900);
    const QRect placed = window->geometry();
    ui.receive("cdn.example.com", 2);
    EXPECT_EQ(window->geometry(), placed);
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
    // ...and again when the next prompt brings it back.
    ui.receive("api.example.com", 3);
    EXPECT_EQ(window->geometry(), placed);
}

// A lasting answer's choices (a one-time answer has none: the picture shows
// them disabled) reach the session the answer is made from, and its preview.
TEST(TrafficPromptView, HostAndSignerChoicesReachTheSessionAndThePreview) {
    UiHarness ui;
    Rule existing = quillfort::testing::sampleRule();
    existing.subject = {RuleSubject::exactExecutable("/usr/bin/curl"), RuleSubject::signingID("old.curl")};
    ui.rules->rules = {existing};
    ui.receive("api.example.com", 1);
    ui.click(ui.find<QAbstractButton>("DurationChipSession"));
    auto* host = ui.find<QComboBox>("HostPicker");
    host->activated(host->findText("*.example.com"));
    UiHarness::settle();
    EXPECT_TRUE(ui.find<QLabel>("RulePreviewText")->text().contains("domain=.example.com"));
    ui.click(ui.find<QAbstractButton>("ReuseExistingChip"));
    const auto& session = ui.coordinator->activePrompts().value().front();
    EXPECT_EQ(session.ruleSelection.hostMatchMode, FlowPromptHostMatchMode::suffix);
    EXPECT_EQ(session.ruleSelection.hostPatternOverride, ".example.com");
    EXPECT_TRUE(session.reuseExistingSignerRule);
}

// Keys wait out the input guard like clicks; then the digits pick the
// duration in their order.
TEST(TrafficPromptView, InputInsideTheGuardTimeDoesNothing) {
    UiHarness ui;
    auto& view = ui.presenter->rootView()->promptView();
    view.setInputGuardInterval(std::chrono::hours(1));
    ui.receive("api.example.com", 1);
    ui.click(ui.find<QAbstractButton>("AllowButton"));
    ui.click(ui.find<QAbstractButton>("CancelButton"));
    for (const auto key : {Qt::Key_Escape, Qt::Key_3}) QTest::keyClick(ui.presenter->window(), key);
    UiHarness::settle();
    EXPECT_TRUE(ui.replies.empty());
    EXPECT_EQ(ui.coordinator->activePrompts().value().front().selectedPreset, AgentPromptDecisionPreset::allowOnce);

    view.setInputGuardInterval(std::chrono::milliseconds(0));
    using P = AgentPromptDecisionPreset;
    for (const auto& [key, preset] : {std::pair{Qt::Key_3, P::allowPermanent}, std::pair{Qt::Key_1, P::allowOnce},
                                      std::pair{Qt::Key_2, P::allowSession}}) {
        QTest::keyClick(ui.presenter->window(), key);
        UiHarness::settle();
        EXPECT_EQ(ui.coordinator->activePrompts().value().front().selectedPreset, preset) << key;
    }
    ui.click(ui.find<QAbstractButton>("AllowButton"));
    EXPECT_EQ(ui.replies.size(), 1u);
}

}  // namespace
}  // namespace quillfort::ui
