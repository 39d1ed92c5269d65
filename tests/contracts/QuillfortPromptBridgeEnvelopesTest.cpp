#include "contracts/QuillfortPromptBridgeEnvelopes.hpp"

#include <gtest/gtest.h>

#include "tests/contracts/FlowPromptSamples.hpp"

namespace quillfort {
namespace {

using testing::sampleRequest;

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
    struct Case {
        QuillfortPromptBridgeResponseEnvelope envelope;
        std::string middle;  // between promptID and createdAt
    };
    const Case cases[] = {
        {{kPromptID, std::nullopt, std::nullopt, kCreatedAt}, ""},
        {{kPromptID, answer, std::nullopt, kCreatedAt}, R"("response":)" + answerText + ","},
        {{kPromptID, answer, "agent busy", kCreatedAt},
         R"("response":)" + answerText + R"(,"errorMessage":"agent busy",)"},
    };
    for (const auto& c : cases) {
        const std::string json =
            R"({"promptID":)" + std::string(kID) + "," + c.middle + R"("createdAt":)" + std::string(kDate) + "}";
        EXPECT_EQ(encodeCompact(c.envelope), json);
        EXPECT_EQ(decodeJson<QuillfortPromptBridgeResponseEnvelope>(json), c.envelope);
    }
}

TEST(QuillfortPromptBridgeEnvelopes, DecodingNeedsRequiredKeysAndReadsNullAsAbsent) {
    const std::string request = serializeCompact(toJson(sampleRequest()));
    const std::string id(kID), date(kDate);
    auto requestError = [](const std::string& json) {
        auto decoded = decodeJson<QuillfortPromptBridgeRequestEnvelope>(json);
        return decoded ? std::string("decoded") : decoded.error().description();
    };
    auto responseError = [](const std::string& json) {
        auto decoded = decodeJson<QuillfortPromptBridgeResponseEnvelope>(json);
        return decoded ? std::string("decoded") : decoded.error().description();
    };
    EXPECT_EQ(requestError(R"({"request":)" + request + "}"), "createdAt: missing required key");
    EXPECT_EQ(requestError(R"({"createdAt":)" + date + "}"), "request: missing required key");
    EXPECT_NE(requestError(""), "decoded");
    EXPECT_EQ(responseError(R"({"promptID":)" + id + "}"), "createdAt: missing required key");
    EXPECT_EQ(responseError(R"({"createdAt":)" + date + "}"), "promptID: missing required key");
    EXPECT_EQ(responseError(R"({"promptID":)" + id + R"(,"response":null,"errorMessage":null,"createdAt":)" + date +
                            "}"),
              "decoded");
}

}  // namespace
}  // namespace quillfort
