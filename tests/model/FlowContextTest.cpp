#include "model/FlowContext.hpp"

#include <functional>

#include <boost/json/parse.hpp>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/testsupport/ModelSamples.hpp"

namespace quillfort {
namespace {

using testing::sampleDate;
using testing::sampleFlowContext;

json::object sampleObject() { return boost::json::parse(encodeCompact(sampleFlowContext())).as_object(); }

json::object& child(json::object& parent, std::string_view key) { return parent.at(key).as_object(); }
json::object& node(json::object& root) { return child(root, "matchedProcessNode"); }
json::object& identity(json::object& root) { return child(node(root), "identity"); }
json::object& ancestor(json::object& root, std::size_t index) {
    return root.at("ancestorChain").as_array().at(index).as_object();
}

TEST(FlowContext, RoundTripsAndWritesEndpointsAsHostAndPort) {
    auto context = sampleFlowContext();
    EXPECT_EQ(decodeJson<FlowContext>(encodeCompact(context)), context);

    FlowContext bare;
    bare.flow.extensionGeneratedID = "";
    bare.flow.direction = FlowDirection::inbound;
    bare.flow.transportProtocol = TransportProtocol::unknown;
    bare.flow.timestamp = sampleDate();
    bare.networkProfile = NetworkProfile::untrusted;
    EXPECT_EQ(encodeCompact(bare),
              R"({"flow":{"extensionGeneratedID":"","direction":"inbound","transportProtocol":"unknown",)"
              R"("timestamp":"2026-03-01T12:00:00Z"},"ancestorChain":[],"dnsConfidence":"unknown",)"
              R"("networkProfile":"untrusted"})");
    EXPECT_EQ(decodeJson<FlowContext>(encodeCompact(bare)), bare);

    auto written = sampleObject();
    EXPECT_EQ(serializeCompact(child(written, "flow").at("remoteEndpoint")), R"({"host":"93.184.216.34","port":443})");
}

// Only failures on paths the shared codec tests cannot reach: through optional
// nodes, sets, arrays of tokens and dates.
TEST(FlowContext, DecodeFailuresNameTheKeyAndTheFault) {
    struct Case {
        std::string_view label;
        std::function<void(json::object&)> spoil;
        std::string_view path, reason;
    };
    const Case cases[] = {
        {"profile by its code name", [](auto& o) { o["networkProfile"] = "defaultProfile"; }, "networkProfile",
         "unknown value \"defaultProfile\""},
        {"endpoint without host", [](auto& o) { child(child(o, "flow"), "localEndpoint").erase("host"); },
         "flow.localEndpoint.host", "missing required key"},
        {"negative userID", [](auto& o) { identity(o)["userID"] = -1; }, "matchedProcessNode.identity.userID",
         "value -1 out of range"},
        {"bad base64 token", [](auto& o) { identity(o)["auditToken"] = "not base64!"; },
         "matchedProcessNode.identity.auditToken", "invalid base64 data"},
        {"unpadded base64 child token", [](auto& o) { node(o)["childAuditTokens"] = json::array{"AQID", "AQ"}; },
         "matchedProcessNode.childAuditTokens[1]", "invalid base64 data"},
        {"unknown tag", [](auto& o) { ancestor(o, 0)["tags"] = json::array{"shell", "Terminal"}; },
         "ancestorChain[0].tags[1]", "unknown value \"Terminal\""},
        {"impossible ancestor date", [](auto& o) { child(ancestor(o, 2), "identity")["launchTime"] = "2026-02-30T00:00:00Z"; },
         "ancestorChain[2].identity.launchTime", "invalid ISO 8601 date \"2026-02-30T00:00:00Z\""},
        {"date as a number", [](auto& o) { child(o, "flow")["timestamp"] = 1772366400; }, "flow.timestamp",
         "expected an ISO 8601 date, found a number"},
        {"ancestor not an object", [](auto& o) {
             // Built step by step: a braced array in an array is a copy for some compilers.
             json::array chain;
             chain.emplace_back(json::array());
             o["ancestorChain"] = std::move(chain);
         }, "ancestorChain[0]",
         "expected an object, found an array"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.label);
        auto object = sampleObject();
        c.spoil(object);
        auto decoded = decodeJson<FlowContext>(serializeCompact(object));
        ASSERT_FALSE(decoded);
        EXPECT_EQ(decoded.error().path, c.path);
        EXPECT_EQ(decoded.error().reason, c.reason);
    }
}

TEST(FlowContext, HostAndPortPreferTheMostSpecificSource) {
    struct Case {
        std::optional<std::string> matchedHostname, hostText;
        std::optional<NetworkEndpoint> remote;
        std::optional<std::uint16_t> port;
        std::optional<std::string> expectedHost;
        std::optional<std::uint16_t> expectedPort;
    };
    const NetworkEndpoint remote{"10.0.0.1", 8443};
    const Case cases[] = {
        {"matched", "text", remote, 443, "matched", 443},
        {std::nullopt, "text", remote, std::nullopt, "text", 8443},
        {std::nullopt, std::nullopt, remote, 0, "10.0.0.1", 0},
        {"", "text", std::nullopt, 80, "", 80},  // present but empty still wins
        {std::nullopt, std::nullopt, std::nullopt, std::nullopt, std::nullopt, std::nullopt},
    };
    for (const auto& c : cases) {
        FlowContext context;
        context.matchedHostname = c.matchedHostname;
        context.flow.hostText = c.hostText;
        context.flow.remoteEndpoint = c.remote;
        context.flow.port = c.port;
        EXPECT_EQ(context.host(), c.expectedHost);
        EXPECT_EQ(context.port(), c.expectedPort);
    }
}

}  // namespace
}  // namespace quillfort
