// The support records the filter side and its set-up tools build on: nothing
// in the agent calls them, so these tests are their only guard.
#include <gtest/gtest.h>

#include "support/QuillfortActivation.hpp"
#include "support/QuillfortRingBuffer.hpp"
#include "support/QuillfortRuntimeDiagnostics.hpp"

namespace quillfort {
namespace {

using namespace std::chrono_literals;

TEST(QuillfortRingBuffer, KeepsTheNewestElementsOldestFirstWithAtLeastOneSlot) {
    QuillfortRingBuffer<int> none(0, {1, 2});
    EXPECT_EQ(none.capacity, 1);
    none.append(3);
    EXPECT_EQ(none.elements(), std::vector<int>{3});

    QuillfortRingBuffer<int> three(3, {1, 2});
    EXPECT_EQ(three.elements(), (std::vector<int>{1, 2}));
    for (int element : {3, 4}) three.append(element);
    EXPECT_EQ(three.elements(), (std::vector<int>{2, 3, 4}));
    EXPECT_EQ(three.count(), 3);
    EXPECT_EQ(QuillfortRingBuffer<int>(3, {1, 2, 3, 4, 5}).elements(), (std::vector<int>{3, 4, 5}));
}

TEST(QuillfortRuntimeDiagnostics, JsonCarriesTheModeAsItsRawString) {
    const QuillfortRuntimeDiagnostics diagnostics{UnknownTrafficMode::blocking, true, false, true};
    const auto text = encodeCompact(diagnostics);
    EXPECT_EQ(text, R"({"unknownTrafficMode":"blocking","promptAgentReady":true,)"
                    R"("shadowPromptDropEnabled":false,"bootstrapAllowlistEnabled":true})");
    EXPECT_EQ(decodeJson<QuillfortRuntimeDiagnostics>(text), diagnostics);
}

QuillfortComponentStatus statusOf(QuillfortProtectedComponent component, QuillfortActivationState state) {
    QuillfortComponentStatus status;
    status.component = component;
    status.state = state;
    status.summary = std::string(title(state));
    status.bundleIdentifier = "com.vessimo.Quillfort." + std::string(id(component));
    return status;
}

TEST(QuillfortActivationSnapshot, FindsComponentsCountsAttentionAndRoundTrips) {
    auto first = statusOf(QuillfortProtectedComponent::flowFilter, QuillfortActivationState::waitingForApproval);
    first.nextAction = QuillfortNextAction{"Install", "Open the installer."};
    first.lastUpdatedAt = Date(1'772'366'400s);
    const QuillfortActivationSnapshot snapshot{
        {first, statusOf(QuillfortProtectedComponent::processObserver, QuillfortActivationState::disabled),
         statusOf(QuillfortProtectedComponent::flowFilter, QuillfortActivationState::running)},
        {{"approve", "Approve the extension", "System settings", QuillfortChecklistState::attentionRequired}},
        "activationRequested",
        Date(1'772'366'460s),
    };
    // Only components count, not the checklist; disabled needs no attention.
    EXPECT_EQ(snapshot.attentionRequiredCount(), 1);
    int attention = 0;
    for (auto state : allCases<QuillfortActivationState>()) attention += requiresAttention(state) ? 1 : 0;
    EXPECT_EQ(attention, 4);  // all but running and disabled
    EXPECT_EQ(snapshot.status(QuillfortProtectedComponent::flowFilter), first);
    EXPECT_EQ(QuillfortActivationSnapshot{}.status(QuillfortProtectedComponent::flowFilter), std::nullopt);

    const auto text = encodePretty(snapshot);
    EXPECT_NE(text.find("2026-03-01T12:00:00Z"), std::string::npos);
    EXPECT_EQ(decodeJson<QuillfortActivationSnapshot>(text), snapshot);
    // Absent optionals are left out, not written as null.
    EXPECT_EQ(encodeCompact(snapshot.components[1]).find("nextAction"), std::string::npos);

    EXPECT_EQ(title(QuillfortActivationState::waitingForApproval), "Waiting For Approval");
    EXPECT_EQ(title(QuillfortChecklistState::attentionRequired), "Needs Attention");
    EXPECT_EQ(shortTitle(QuillfortProtectedComponent::flowFilter), "Flow");
}

}  // namespace
}  // namespace quillfort
