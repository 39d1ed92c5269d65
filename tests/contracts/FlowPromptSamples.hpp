// Sample prompts for the contract tests: a curl flow to api.example.com:443
// with a signer, tags and an ancestor application, which each test bends.
#pragma once

#include <optional>
#include <set>
#include <string>

#include "contracts/FlowPromptMessages.hpp"

namespace quillfort::testing {

inline ProcessNode sampleProcess(std::string path, std::optional<std::string> signingID = std::nullopt,
                                 std::set<ProcessTag> tags = {}, std::optional<std::string> bundleID = std::nullopt) {
    ProcessNode node;
    node.identity.pid = 4242;
    node.identity.auditToken = Bytes{1, 2, 3, 4};
    node.identity.executablePath = std::move(path);
    node.identity.signingID = std::move(signingID);
    node.identity.bundleID = std::move(bundleID);
    node.tags = std::move(tags);
    return node;
}

// /usr/bin/curl signed "com.apple.curl", tagged terminal and shell, launched
// from Terminal.app, to api.example.com (matched host name) port 443 over TCP.
inline FlowPromptRequest sampleRequest() {
    FlowPromptRequest request;
    request.id = *Uuid::parse("6f1c2a9e-0b4d-4e8f-9a7c-3d2e1f0a5b6c");
    auto& context = request.context;
    context.flow.extensionGeneratedID = "flow-1";
    context.flow.transportProtocol = TransportProtocol::tcp;
    context.flow.remoteEndpoint = NetworkEndpoint{"93.184.216.34", 443};
    context.flow.port = 443;
    context.flow.timestamp = Date{std::chrono::seconds{1772366400}};
    context.matchedProcessNode =
        sampleProcess("/usr/bin/curl", "com.apple.curl", {ProcessTag::terminal, ProcessTag::shell});
    context.ancestorChain = {sampleProcess("/bin/zsh", "com.apple.zsh", {ProcessTag::shell}),
                             sampleProcess("/Applications/Utilities/Terminal.app/Contents/MacOS/Terminal",
                                           "com.apple.Terminal", {ProcessTag::terminal}, "com.apple.Terminal")};
    context.matchedHostname = "api.example.com";
    context.dnsConfidence = DNSConfidence::exact;
    return request;
}

}  // namespace quillfort::testing
