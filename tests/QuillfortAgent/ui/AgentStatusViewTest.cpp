#include "QuillfortAgent/ui/AgentStatusView.hpp"

#include <QComboBox>
#include <QLabel>

#include "tests/QuillfortAgent/ui/UiHarness.hpp"

namespace quillfort::ui {
namespace {

using testing::UiHarness;

// The filled view is in the pictures; the empty one and the answer are not.
TEST(AgentStatusView, SendAnswersTheRowsPromptWithItsPickedPreset) {
    UiHarness ui;
    AgentStatusView status({}, ui.coordinator);
    status.show();
    auto* emptyQueue = status.findChild<QLabel*>("StatusEmptyQueue");
    EXPECT_TRUE(emptyQueue->isVisible());

    ui.receive("head.example.com", 1);
    ui.receive("second.example.com", 2);
    auto* row = status.findChild<QWidget*>("StatusPromptRow1");
    ASSERT_NE(row, nullptr);
    auto* picker = row->findChild<QComboBox*>("StatusPresetPicker");
    const int blockPermanently = picker->findText("Block Permanently");
    ASSERT_GE(blockPermanently, 0);
    picker->activated(blockPermanently);
    QTest::mouseClick(row->findChild<QAbstractButton*>("StatusSendButton"), Qt::LeftButton);
    UiHarness::settle();

    ASSERT_EQ(ui.replies.size(), 1u);
    EXPECT_EQ(ui.replies[0].first, 2u);
    EXPECT_EQ(ui.replies[0].second.action, RuleAction::drop);
    EXPECT_EQ(ui.replies[0].second.scope, RuleScope::persistent);
    ASSERT_EQ(ui.coordinator->activePrompts().value().size(), 1u);
    EXPECT_FALSE(status.findChild<QLabel*>("StatusNoResponses"));
    // The head's row stays, now alone.
    EXPECT_EQ(status.findChildren<QAbstractButton*>("StatusSendButton").size(), 1);
}

}  // namespace
}  // namespace quillfort::ui
