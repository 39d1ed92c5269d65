#include "contracts/FlowFilterEvent.hpp"

#include <gtest/gtest.h>

namespace quillfort {
namespace {

TEST(FlowFilterEvent, RoundTripsWithSnakeCaseSourceAndAbsentOptionalsLeftOut) {
    FlowFilterEvent observed;
    observed.id = *Uuid::parse("6F1C2A9E-0B4D-4E8F-9A7C-3D2E1F0A5B6C");
    observed.recordedAt = Date{std::chrono::seconds{1772366400}};
    observed.summary = "curl -> api.example.com:443";
    const json::value bare = toJson(observed);
    EXPECT_EQ(bare.as_object().size(), 6u);  // id, recordedAt, mode, kind, summary, context

    FlowFilterEvent decided = observed;
    decided.mode = FlowFilterMode::enforce;
    decided.kind = FlowFilterEventKind::decided;
    decided.unknownTrafficMode = UnknownTrafficMode::blocking;
    decided.decision = FlowDecision{FlowDecisionAction::drop, "default_blocking_drop", std::nullopt, std::nullopt, 1.5};
    decided.decisionSource = FlowFilterDecisionSource::defaultBlockingDrop;
    decided.url = "https://api.example.com/v1";
    const json::value full = toJson(decided);
    EXPECT_EQ(full.at("decisionSource"), json::value("default_blocking_drop"));

    const FlowFilterEventSnapshot snapshot{observed.recordedAt, {observed, decided}};
    EXPECT_EQ(decodeJson<FlowFilterEventSnapshot>(encodeCompact(snapshot)), snapshot);

    json::value camelCase = full;
    camelCase.as_object()["decisionSource"] = "defaultBlockingDrop";
    EXPECT_FALSE(fromJson<FlowFilterEvent>(camelCase).has_value());
}

}  // namespace
}  // namespace quillfort
