// The network and transport headers of a packet as the kernel hands it over
// (queue or log): addresses, protocol, ports and where the payload lies.
// Bytes from the network: every read is bounded by the length given, and
// any bytes at all are safe to pass.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

#include "platform/IpAddress.hpp"

namespace quillfort {

struct PacketHeaders {
    IpAddress source;
    IpAddress destination;
    std::uint8_t protocol = 0;  // 6 TCP, 17 UDP, anything else as found
    // Present for the first fragment (or an unfragmented packet) of TCP and UDP.
    std::optional<std::uint16_t> sourcePort;
    std::optional<std::uint16_t> destinationPort;
    std::uint8_t tcpFlags = 0;
    // The transport payload: offset from the start of the packet and length,
    // both within the bytes given (a captured copy may be shorter than the packet).
    std::size_t payloadOffset = 0;
    std::size_t payloadLength = 0;

    bool operator==(const PacketHeaders&) const = default;
};

namespace PacketParser {

inline constexpr std::uint8_t tcp = 6;
inline constexpr std::uint8_t udp = 17;
inline constexpr std::uint8_t tcpSyn = 0x02;
inline constexpr std::uint8_t tcpAck = 0x10;

// IPv4 (with options) or IPv6 (with hop-by-hop, routing, fragment,
// destination-options and authentication headers, at most 8 of them).
// Nothing for anything else or a header cut short.
[[nodiscard]] std::optional<PacketHeaders> parse(std::span<const std::uint8_t> packet) noexcept;

}  // namespace PacketParser

}  // namespace quillfort
