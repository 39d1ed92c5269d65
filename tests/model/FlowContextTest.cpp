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
    auto expectFailure = [](const std::function<void(json::object&)>& spoil, std::string_view path,
                            std::string_view reason) {
        auto object = sampleObject();
        spoil(object);
        EXPECT_EQ(decodeJson<FlowContext>(serializeCompact(object)),
                  std::unexpected(JsonError{std::string(path), std::string(reason)}));
    };
    expectFailure([](auto& o) { child(child(o, "flow"), "localEndpoint").erase("host"); }, "flow.localEndpoint.host",
                  "missing required key");
    expectFailure([](auto& o) { node(o)["childAuditTokens"] = json::array{"AQID", "AQ"}; },
                  "matchedProcessNode.childAuditTokens[1]", "invalid base64 data");
    expectFailure([](auto& o) { ancestor(o, 0)["tags"] = json::array{"shell", "Terminal"}; }, "ancestorChain[0].tags[1]",
                  "unknown value \"Terminal\"");
    expectFailure([](auto& o) { child(ancestor(o, 2), "identity")["launchTime"] = "2026-02-30T00:00:00Z"; },
                  "ancestorChain[2].identity.launchTime", "invalid ISO 8601 date \"2026-02-30T00:00:00Z\"");
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
