#include "contracts/QuillfortInternalPromptTransport.hpp"

#include <algorithm>
#include <optional>
#include <string>

#include "contracts/QuillfortPromptEndpointStore.hpp"
#include "model/Text.hpp"

namespace quillfort::QuillfortInternalPromptTransport {
namespace {

bool isLoopbackHost(const std::optional<std::string>& host) {
    if (!host) return false;
    const std::string normalized = text::normalizedHost(*host);
    if (normalized.empty()) return false;
    return std::ranges::find(loopbackHostNames, std::string_view(normalized)) != loopbackHostNames.end();
}

}  // namespace

bool shouldBypass(const FlowContext& context) {
    const FlowIdentity& flow = context.flow;
    if (flow.direction != FlowDirection::outbound) return false;

    std::optional<std::string> remoteHost;
    if (flow.remoteEndpoint) remoteHost = flow.remoteEndpoint->host;
    if (!isLoopbackHost(flow.hostText) && !isLoopbackHost(remoteHost)) return false;

    const std::optional<std::uint16_t> port = context.port();
    if (!port || *port != QuillfortPromptEndpointStore::defaultLoopbackPort) return false;

    return flow.transportProtocol != TransportProtocol::udp;
}

FlowDecision bypassDecision(const FlowContext& /*context*/) {
    return FlowDecision{FlowDecisionAction::allow, std::string(bypassReasonCode), std::nullopt, std::nullopt, 0};
}

}  // namespace quillfort::QuillfortInternalPromptTransport
