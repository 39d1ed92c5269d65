// The flow half of a prompt: the flow as the filter saw it and everything the
// agent is told about it (attributed process, ancestors, host name).
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "model/Json.hpp"
#include "model/ProcessIdentity.hpp"

namespace quillfort {

enum class FlowDirection { inbound, outbound };

template <>
struct EnumTraits<FlowDirection> {
    static constexpr std::array<std::pair<FlowDirection, std::string_view>, 2> entries{{
        {FlowDirection::inbound, "inbound"},
        {FlowDirection::outbound, "outbound"},
    }};
};

enum class TransportProtocol { tcp, udp, unknown };

template <>
struct EnumTraits<TransportProtocol> {
    static constexpr std::array<std::pair<TransportProtocol, std::string_view>, 3> entries{{
        {TransportProtocol::tcp, "tcp"},
        {TransportProtocol::udp, "udp"},
        {TransportProtocol::unknown, "unknown"},
    }};
};

enum class DNSConfidence { exact, correlated, guessed, unknown };

template <>
struct EnumTraits<DNSConfidence> {
    static constexpr std::array<std::pair<DNSConfidence, std::string_view>, 4> entries{{
        {DNSConfidence::exact, "exact"},
        {DNSConfidence::correlated, "correlated"},
        {DNSConfidence::guessed, "guessed"},
        {DNSConfidence::unknown, "unknown"},
    }};
};

enum class NetworkProfile { defaultProfile, trusted, untrusted };

template <>
struct EnumTraits<NetworkProfile> {
    static constexpr std::array<std::pair<NetworkProfile, std::string_view>, 3> entries{{
        {NetworkProfile::defaultProfile, "default"},
        {NetworkProfile::trusted, "trusted"},
        {NetworkProfile::untrusted, "untrusted"},
    }};
};

struct NetworkEndpoint {
    std::string host;
    std::uint16_t port = 0;

    bool operator==(const NetworkEndpoint&) const = default;
};

struct FlowIdentity {
    std::string extensionGeneratedID;
    std::optional<Bytes> sourceAppAuditToken;
    std::optional<Bytes> sourceProcessAuditToken;
    FlowDirection direction = FlowDirection::outbound;
    TransportProtocol transportProtocol = TransportProtocol::tcp;
    std::optional<NetworkEndpoint> localEndpoint;
    std::optional<NetworkEndpoint> remoteEndpoint;
    std::optional<std::string> hostText;
    std::optional<std::uint16_t> port;
    Date timestamp{};

    bool operator==(const FlowIdentity&) const = default;
};

struct FlowContext {
    FlowIdentity flow;
    std::optional<ProcessNode> matchedProcessNode;
    std::vector<ProcessNode> ancestorChain;
    std::optional<std::string> matchedHostname;
    DNSConfidence dnsConfidence = DNSConfidence::unknown;
    NetworkProfile networkProfile = NetworkProfile::defaultProfile;

    bool operator==(const FlowContext&) const = default;

    // The far host as everyone shows and matches it: the first present of
    // `matchedHostname`, the flow's `hostText` and the remote endpoint's host.
    [[nodiscard]] std::optional<std::string> host() const;
    // The far port: the flow's `port`, else the remote endpoint's port.
    [[nodiscard]] std::optional<std::uint16_t> port() const;
};

template <>
struct JsonFields<NetworkEndpoint> {
    using T = NetworkEndpoint;
    static constexpr auto fields = std::tuple{
        jsonField("host", &T::host),
        jsonField("port", &T::port),
    };
};

template <>
struct JsonFields<FlowIdentity> {
    using T = FlowIdentity;
    static constexpr auto fields = std::tuple{
        jsonField("extensionGeneratedID", &T::extensionGeneratedID),
        jsonField("sourceAppAuditToken", &T::sourceAppAuditToken),
        jsonField("sourceProcessAuditToken", &T::sourceProcessAuditToken),
        jsonField("direction", &T::direction),
        jsonField("transportProtocol", &T::transportProtocol),
        jsonField("localEndpoint", &T::localEndpoint),
        jsonField("remoteEndpoint", &T::remoteEndpoint),
        jsonField("hostText", &T::hostText),
        jsonField("port", &T::port),
        jsonField("timestamp", &T::timestamp),
    };
};

template <>
struct JsonFields<FlowContext> {
    using T = FlowContext;
    static constexpr auto fields = std::tuple{
        jsonField("flow", &T::flow),
        jsonField("matchedProcessNode", &T::matchedProcessNode),
        jsonField("ancestorChain", &T::ancestorChain),
        jsonField("matchedHostname", &T::matchedHostname),
        jsonField("dnsConfidence", &T::dnsConfidence),
        jsonField("networkProfile", &T::networkProfile),
    };
};

}  // namespace quillfort
