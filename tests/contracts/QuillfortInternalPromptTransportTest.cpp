#include "contracts/QuillfortInternalPromptTransport.hpp"

#include <gtest/gtest.h>

namespace quillfort {
namespace {

struct BypassCase {
    std::string name;
    FlowDirection direction;
    TransportProtocol protocol;
    std::optional<std::string> hostText;
    std::optional<NetworkEndpoint> remote;
    std::optional<std::uint16_t> port;
    bool bypassed;
};

TEST(QuillfortInternalPromptTransport, BypassesOnlyOutboundStreamsToAgentLoopbackPort) {
    using enum FlowDirection;
    using enum TransportProtocol;
    const auto none = std::nullopt;
    const BypassCase cases[] = {
        {"LOCALHOST over TCP", outbound, tcp, "LOCALHOST", none, 27839, true},
        {"same over UDP", outbound, udp, "LOCALHOST", none, 27839, false},
        {"unknown protocol passes", outbound, unknown, "127.0.0.1", none, 27839, true},
        {"inbound", inbound, tcp, "localhost", none, 27839, false},
        {"127.0.0.2 is not listed", outbound, tcp, "127.0.0.2", none, 27839, false},
        {"bracketed, padded host text", outbound, tcp, " [::1]\n", none, 27839, true},
        {"loopback endpoint beside other host text", outbound, tcp, "example.com",
         NetworkEndpoint{"127.0.0.1", 27839}, none, true},
        {"flow port wins over endpoint port", outbound, tcp, none, NetworkEndpoint{"127.0.0.1", 27839}, 443, false},
        {"other port", outbound, tcp, "localhost", none, 27840, false},
        {"no port", outbound, tcp, "localhost", none, none, false},
        {"no host", outbound, tcp, none, none, 27839, false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        FlowContext context;
        context.flow.direction = c.direction;
        context.flow.transportProtocol = c.protocol;
        context.flow.hostText = c.hostText;
        context.flow.remoteEndpoint = c.remote;
        context.flow.port = c.port;
        EXPECT_EQ(QuillfortInternalPromptTransport::shouldBypass(context), c.bypassed);
    }
    EXPECT_EQ(QuillfortInternalPromptTransport::bypassDecision(FlowContext{}),
              (FlowDecision{FlowDecisionAction::allow, "internal_quillfort_prompt_transport_allow", std::nullopt,
                            std::nullopt, 0}));
}

}  // namespace
}  // namespace quillfort
