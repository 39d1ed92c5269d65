#include "contracts/FlowPromptMessages.hpp"

#include <gtest/gtest.h>

#include "contracts/FlowPromptRuleBuilder.hpp"
#include "tests/contracts/FlowPromptSamples.hpp"
#include "tests/testsupport/SequentialUuidSource.hpp"

#include "contracts/FlowFilterEvent.hpp"
#include "contracts/QuillfortPromptBridgeEnvelopes.hpp"

namespace quillfort {
namespace {

using testing::sampleRequest;

TEST(FlowPromptMessages, EveryMessageRoundTrips) {
    auto request = sampleRequest();
    testing::SequentialUuidSource ids;
    auto selection = FlowPromptRuleBuilder::defaultSelection(request);
    auto rule = FlowPromptRuleBuilder::buildSuggestedRule(request, RuleAction::drop, RuleScope::persistent, selection, ids);
    request.suggestedRule = rule;
    EXPECT_EQ(decodeJson<FlowPromptRequest>(encodeCompact(request)), request);
    selection.hostMatchMode = FlowPromptHostMatchMode::suffix;
    selection.hostPatternOverride.reset();
    const FlowPromptResponse response{request.id, RuleAction::drop, RuleScope::persistent, true, selection, rule};
    EXPECT_EQ(decodeJson<FlowPromptResponse>(encodeCompact(response)), response);
    const FlowPromptSignerChangeCandidate candidate{testing::uuidNumber(5), "Allow curl", "com.apple.curl.old"};
    EXPECT_EQ(decodeJson<FlowPromptSignerChangeCandidate>(encodeCompact(candidate)), candidate);
}

const Uuid kPromptID = *Uuid::parse("6f1c2a9e-0b4d-4e8f-9a7c-3d2e1f0a5b6c");
const Date kCreatedAt = Date{std::chrono::seconds{1769847300}};  // 2026-01-31T08:15:00Z
constexpr std::string_view kID = R"("6F1C2A9E-0B4D-4E8F-9A7C-3D2E1F0A5B6C")";
constexpr std::string_view kDate = R"("2026-01-31T08:15:00Z")";

TEST(QuillfortPromptBridgeEnvelopes, EnvelopesAreCompactInFieldOrderAndRoundTrip) {
    EXPECT_EQ(bridgeFileName(kPromptID), std::string(kID.substr(1, 36)) + ".json");
    const QuillfortPromptBridgeRequestEnvelope request{sampleRequest(), kCreatedAt};
    const std::string requestText = encodeCompact(request);
    EXPECT_TRUE(requestText.starts_with(R"({"request":{"id":)" + std::string(kID)));
    EXPECT_TRUE(requestText.ends_with(R"(},"createdAt":)" + std::string(kDate) + "}"));
    EXPECT_EQ(decodeJson<QuillfortPromptBridgeRequestEnvelope>(requestText), request);

    FlowPromptResponse answer{kPromptID, RuleAction::drop, RuleScope::session, false, std::nullopt, std::nullopt};
    const std::string answerText = R"({"promptID":)" + std::string(kID) + R"(,"action":"drop","scope":"session","persist":false})";
    // Each envelope with what stands between its promptID and createdAt.
    const std::pair<QuillfortPromptBridgeResponseEnvelope, std::string> cases[] = {
        {{kPromptID, std::nullopt, std::nullopt, kCreatedAt}, ""},
        {{kPromptID, answer, std::nullopt, kCreatedAt}, R"("response":)" + answerText + ","},
        {{kPromptID, answer, "agent busy", kCreatedAt},
         R"("response":)" + answerText + R"(,"errorMessage":"agent busy",)"},
    };
    for (const auto& [envelope, middle] : cases) {
        const std::string json =
            R"({"promptID":)" + std::string(kID) + "," + middle + R"("createdAt":)" + std::string(kDate) + "}";
        EXPECT_EQ(encodeCompact(envelope), json);
        EXPECT_EQ(decodeJson<QuillfortPromptBridgeResponseEnvelope>(json), envelope);
    }
}

template <class Envelope>
std::string decodeError(const std::string& json) {
    auto decoded = decodeJson<Envelope>(json);
    return decoded ? std::string("decoded") : decoded.error().description();
}

TEST(QuillfortPromptBridgeEnvelopes, DecodingNeedsRequiredKeysAndReadsNullAsAbsent) {
    using Request = QuillfortPromptBridgeRequestEnvelope;
    using Response = QuillfortPromptBridgeResponseEnvelope;
    const std::string id(kID), date(kDate);
    EXPECT_EQ(decodeError<Request>(R"({"request":)" + serializeCompact(toJson(sampleRequest())) + "}"),
              "createdAt: missing required key");
    EXPECT_EQ(decodeError<Request>(R"({"createdAt":)" + date + "}"), "request: missing required key");
    EXPECT_EQ(decodeError<Response>(R"({"createdAt":)" + date + "}"), "promptID: missing required key");
    EXPECT_EQ(decodeError<Response>(R"({"promptID":)" + id + R"(,"response":null,"errorMessage":null,"createdAt":)" +
                                    date + "}"),
              "decoded");
}

TEST(FlowFilterEvent, RoundTripsWithSnakeCaseSourceAndAbsentOptionalsLeftOut) {
    FlowFilterEvent observed;
    observed.id = kPromptID;
    observed.recordedAt = Date{std::chrono::seconds{1772366400}};
    observed.summary = "curl -> api.example.com:443";
    EXPECT_EQ(toJson(observed).as_object().size(), 6u);  // id, recordedAt, mode, kind, summary, context

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
