#include "support/QuillfortActivation.hpp"

#include <gtest/gtest.h>

namespace quillfort {
namespace {

using namespace std::chrono_literals;

QuillfortComponentStatus statusOf(QuillfortProtectedComponent component, QuillfortActivationState state) {
    QuillfortComponentStatus status;
    status.component = component;
    status.state = state;
    status.summary = std::string(title(state));
    status.detail = "detail";
    status.bundleIdentifier = "com.vessimo.Quillfort." + std::string(id(component));
    status.isBundled = true;
    return status;
}

TEST(QuillfortActivationSnapshot, CountsComponentsThatRequireAttention) {
    QuillfortActivationSnapshot snapshot;
    snapshot.components = {
        statusOf(QuillfortProtectedComponent::flowFilter, QuillfortActivationState::running),
        statusOf(QuillfortProtectedComponent::processObserver, QuillfortActivationState::disabled),
        statusOf(QuillfortProtectedComponent::flowFilter, QuillfortActivationState::waitingForApproval),
    };
    snapshot.manualSetupSteps = {{"full-disk", "Grant access", "…", QuillfortChecklistState::attentionRequired}};
    EXPECT_EQ(snapshot.attentionRequiredCount(), 1);

    int attention = 0;
    for (auto state : allCases<QuillfortActivationState>()) attention += requiresAttention(state) ? 1 : 0;
    EXPECT_EQ(attention, 4);  // all but running and disabled
}

TEST(QuillfortActivationSnapshot, StatusFindsFirstEntryForComponent) {
    QuillfortActivationSnapshot snapshot;
    snapshot.components = {
        statusOf(QuillfortProtectedComponent::flowFilter, QuillfortActivationState::error),
        statusOf(QuillfortProtectedComponent::flowFilter, QuillfortActivationState::running),
    };
    EXPECT_EQ(snapshot.status(QuillfortProtectedComponent::processObserver), std::nullopt);
    const auto found = snapshot.status(QuillfortProtectedComponent::flowFilter);
    ASSERT_TRUE(found.has_value());
    EXPECT_EQ(found->state, QuillfortActivationState::error);
    EXPECT_EQ(found->id(), "flowFilter");
}

TEST(QuillfortActivation, TitlesAreTheDisplayTexts) {
    EXPECT_EQ(title(QuillfortProtectedComponent::processObserver), "Process Observer");
    EXPECT_EQ(shortTitle(QuillfortProtectedComponent::flowFilter), "Flow");
    EXPECT_EQ(title(QuillfortActivationState::waitingForApproval), "Waiting For Approval");
    EXPECT_EQ(title(QuillfortChecklistState::attentionRequired), "Needs Attention");
    EXPECT_EQ(fromRawValue<QuillfortActivationState>("Running"), std::nullopt);
}

TEST(QuillfortActivationSnapshot, FullSnapshotRoundTrips) {
    auto status = statusOf(QuillfortProtectedComponent::flowFilter, QuillfortActivationState::notInstalled);
    status.nextAction = QuillfortNextAction{"Install", "Open the installer."};
    status.isRequestInFlight = true;
    status.lastUpdatedAt = Date(1'772'366'400s);
    const QuillfortActivationSnapshot snapshot{
        {status, statusOf(QuillfortProtectedComponent::processObserver, QuillfortActivationState::running)},
        {{"approve", "Approve the extension", "System settings", QuillfortChecklistState::pending}},
        "activationRequested",
        Date(1'772'366'460s),
    };
    const auto text = encodePretty(snapshot);
    EXPECT_NE(text.find("2026-03-01T12:00:00Z"), std::string::npos);
    EXPECT_EQ(decodeJson<QuillfortActivationSnapshot>(text), snapshot);
    // The running component has no next action and no time: both are left out.
    EXPECT_EQ(encodeCompact(snapshot.components[1]).find("nextAction"), std::string::npos);
    EXPECT_EQ(encodeCompact(snapshot.components[1]).find("lastUpdatedAt"), std::string::npos);
}

}  // namespace
}  // namespace quillfort
