#include "contracts/QuillfortPromptListenerRecord.hpp"

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "contracts/QuillfortPromptEndpointStore.hpp"

namespace quillfort {
namespace {

using Kind = QuillfortPromptBridgeTransportKind;
const std::string kDefaultService(QuillfortPromptEndpointStore::defaultMachServiceName);

QuillfortPromptListenerRecord record(Kind transport, std::optional<std::string> service,
                                     std::optional<std::string> requests = {},
                                     std::optional<std::string> responses = {},
                                     std::optional<std::string> session = {}) {
    return {transport, std::move(service), std::move(requests), std::move(responses), std::move(session)};
}

// Old agents wrote a bare service name or left keys out; what is not a record
// at all is refused.
TEST(QuillfortPromptListenerRecord, LenientReadForm) {
    const std::vector<std::pair<std::string, std::optional<QuillfortPromptListenerRecord>>> cases{
        {R"("agent.service")", record(Kind::machServiceXPC, "agent.service")},
        {R"({})", record(Kind::machServiceXPC, kDefaultService)},
        {R"({"sessionIdentifier":"S","transport":null})", record(Kind::machServiceXPC, kDefaultService, {}, {}, "S")},
        {R"({"requestsDirectoryPath":"/tmp/r"})", record(Kind::fileRequestResponse, {}, "/tmp/r", "")},
        {R"({"responsesDirectoryPath":"/s","machServiceName":"kept"})",
         record(Kind::fileRequestResponse, "kept", "", "/s")},
        {R"({"transport":"machServiceXPC","requestsDirectoryPath":"/r"})",
         record(Kind::machServiceXPC, kDefaultService, "/r")},
        {R"({"transport":"fileRequestResponse"})", record(Kind::fileRequestResponse, {}, "", "")},
        {R"({"transport":"quic"})", std::nullopt}, {R"({"machServiceName":5})", std::nullopt},
        {R"({"requestsDirectoryPath":["/r"]})", std::nullopt}, {"[1]", std::nullopt}, {"42", std::nullopt},
        {"{", std::nullopt},
    };
    for (const auto& [json, expected] : cases) {
        const auto decoded = decodeJson<QuillfortPromptListenerRecord>(json);
        EXPECT_EQ(decoded ? std::optional(*decoded) : std::nullopt, expected) << json;
    }
}

TEST(QuillfortPromptListenerRecord, SummaryWritesNilForAbsentValues) {
    EXPECT_EQ(record(Kind::machServiceXPC, {}).summary(), "transport=machServiceXPC machService=<nil>");
    EXPECT_EQ(record(Kind::fileRequestResponse, "ignored", "/r", {}, "S").summary(),
              "transport=fileRequestResponse requests=/r responses=<nil> session=S");
}

TEST(QuillfortPromptListenerRecord, UsableNeedsNonBlankEssentials) {
    const std::vector<std::pair<QuillfortPromptListenerRecord, bool>> cases{
        {record(Kind::machServiceXPC, "svc"), true},
        {record(Kind::machServiceXPC, "   "), false},
        {record(Kind::machServiceXPC, "\n\t"), false},
        {record(Kind::machServiceXPC, {}, "/r", "/s"), false},
        {record(Kind::fileRequestResponse, {}, "/r", "/s"), true},  // session not needed
        {record(Kind::fileRequestResponse, {}, "/r", " \n"), false},
        {record(Kind::fileRequestResponse, {}, {}, "/s"), false},
        {record(Kind::fileRequestResponse, "svc", {}, {}), false},
    };
    for (const auto& [value, usable] : cases) {
        EXPECT_EQ(QuillfortPromptEndpointStore::isUsable(value), usable) << value;
    }
}

}  // namespace
}  // namespace quillfort
