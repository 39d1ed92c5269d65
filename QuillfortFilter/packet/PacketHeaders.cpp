#include "QuillfortFilter/packet/PacketHeaders.hpp"

#include <algorithm>

namespace quillfort::PacketParser {

namespace {

constexpr std::size_t maximumExtensionHeaders = 8;

std::uint16_t read16(std::span<const std::uint8_t> bytes, std::size_t offset) noexcept {
    return static_cast<std::uint16_t>(bytes[offset] << 8 | bytes[offset + 1]);
}

// Ports, flags and payload of the transport header at `offset`, when it is
// TCP or UDP and whole.
void parseTransport(std::span<const std::uint8_t> packet, std::size_t offset, std::size_t end,
                    PacketHeaders& headers) noexcept {
    if (offset > end) return;
    const std::size_t available = end - offset;
    if (headers.protocol == udp && available >= 8) {
        headers.sourcePort = read16(packet, offset);
        headers.destinationPort = read16(packet, offset + 2);
        headers.payloadOffset = offset + 8;
        headers.payloadLength = available - 8;
    } else if (headers.protocol == tcp && available >= 20) {
        const std::size_t headerLength = static_cast<std::size_t>(packet[offset + 12] >> 4) * 4;
        if (headerLength < 20 || headerLength > available) return;
        headers.sourcePort = read16(packet, offset);
        headers.destinationPort = read16(packet, offset + 2);
        headers.tcpFlags = packet[offset + 13];
        headers.payloadOffset = offset + headerLength;
        headers.payloadLength = available - headerLength;
    }
}

std::optional<PacketHeaders> parseIPv4(std::span<const std::uint8_t> packet) noexcept {
    if (packet.size() < 20) return std::nullopt;
    const std::size_t headerLength = static_cast<std::size_t>(packet[0] & 0x0f) * 4;
    if (headerLength < 20 || headerLength > packet.size()) return std::nullopt;
    PacketHeaders headers;
    headers.protocol = packet[9];
    headers.source = *IpAddress::fromBytes(packet.subspan(12, 4));
    headers.destination = *IpAddress::fromBytes(packet.subspan(16, 4));
    // A captured copy may end early; the packet's own length may also be a lie.
    const std::size_t totalLength = read16(packet, 2);
    const std::size_t end = std::min(packet.size(), std::max(totalLength, headerLength));
    const bool laterFragment = (read16(packet, 6) & 0x1fff) != 0;
    if (!laterFragment) parseTransport(packet, headerLength, end, headers);
    return headers;
}

std::optional<PacketHeaders> parseIPv6(std::span<const std::uint8_t> packet) noexcept {
    if (packet.size() < 40) return std::nullopt;
    PacketHeaders headers;
    headers.source = *IpAddress::fromBytes(packet.subspan(8, 16));
    headers.destination = *IpAddress::fromBytes(packet.subspan(24, 16));
    const std::size_t end = std::min(packet.size(), 40 + static_cast<std::size_t>(read16(packet, 4)));
    std::uint8_t next = packet[6];
    std::size_t offset = 40;
    for (std::size_t count = 0; count < maximumExtensionHeaders; ++count) {
        std::size_t length = 0;
        switch (next) {
            case 0:    // hop-by-hop options
            case 43:   // routing
            case 60:   // destination options
                if (end < offset + 2) return headers;
                length = (static_cast<std::size_t>(packet[offset + 1]) + 1) * 8;
                break;
            case 44:  // fragment: only the first fragment carries the transport header
                if (end < offset + 8) return headers;
                if ((read16(packet, offset + 2) & 0xfff8) != 0) {
                    headers.protocol = packet[offset];
                    return headers;
                }
                length = 8;
                break;
            case 51:  // authentication header
                if (end < offset + 2) return headers;
                length = (static_cast<std::size_t>(packet[offset + 1]) + 2) * 4;
                break;
            default:
                headers.protocol = next;
                parseTransport(packet, offset, end, headers);
                return headers;
        }
        if (length > end - offset) return headers;
        next = packet[offset];
        offset += length;
    }
    headers.protocol = next;  // more extension headers than any real packet has
    return headers;
}

}  // namespace

std::optional<PacketHeaders> parse(std::span<const std::uint8_t> packet) noexcept {
    if (packet.empty()) return std::nullopt;
    switch (packet[0] >> 4) {
        case 4: return parseIPv4(packet);
        case 6: return parseIPv6(packet);
        default: return std::nullopt;
    }
}

}  // namespace quillfort::PacketParser
