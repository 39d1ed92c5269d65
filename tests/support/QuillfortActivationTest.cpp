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

TEST(QuillfortComponentStatus, AbsentOptionalsAreLeftOutAndReadBackEqual) {
    const auto status = statusOf(QuillfortProtectedComponent::processObserver, QuillfortActivationState::degraded);
    const auto text = encodeCompact(status);
    EXPECT_EQ(text.find("nextAction"), std::string::npos);
    EXPECT_EQ(text.find("lastUpdatedAt"), std::string::npos);
    EXPECT_EQ(decodeJson<QuillfortComponentStatus>(text), status);
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
}

TEST(QuillfortActivationSnapshot, ReadingFailsOnMissingOrWrongRequiredKeys) {
    const std::string step = R"({"id":"a","title":"t","detail":"d","state":"pending"})";
    EXPECT_TRUE(decodeJson<QuillfortActivationSnapshot>(
                    R"({"components":[],"manualSetupSteps":[)" + step + R"(],"lastEvent":null})")
                    .has_value());
    // Each broken document fails the whole snapshot.
    const std::string broken[] = {
        R"({"manualSetupSteps":[]})",
        R"({"components":[],"manualSetupSteps":[{"id":"a","title":"t","state":"pending"}]})",
        R"({"components":[],"manualSetupSteps":[{"id":"a","title":"t","detail":"d","state":"done"}]})",
        R"({"components":[{"component":"flowFilter","state":"running","summary":"s","detail":"d",)"
        R"("bundleIdentifier":"b","isBundled":true}],"manualSetupSteps":[]})",
        R"({"components":[],"manualSetupSteps":[],"lastUpdatedAt":"yesterday"})",
    };
    for (const auto& text : broken) {
        SCOPED_TRACE(text);
        EXPECT_FALSE(decodeJson<QuillfortActivationSnapshot>(text).has_value());
    }
}

}  // namespace
}  // namespace quillfort
