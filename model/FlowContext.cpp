#include "model/FlowContext.hpp"

namespace quillfort {

std::optional<std::string> FlowContext::host() const {
    if (matchedHostname) return matchedHostname;
    if (flow.hostText) return flow.hostText;
    if (flow.remoteEndpoint) return flow.remoteEndpoint->host;
    return std::nullopt;
}

std::optional<std::uint16_t> FlowContext::port() const {
    if (flow.port) return flow.port;
    if (flow.remoteEndpoint) return flow.remoteEndpoint->port;
    return std::nullopt;
}

}  // namespace quillfort
