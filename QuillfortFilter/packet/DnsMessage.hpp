// What a DNS response says about names and addresses: the name that was
// asked, and each address it gives with the chain of names (the asked name,
// then every CNAME on the way) that leads to it. Bytes from the network:
// every read is bounded by the message's length, compression pointers are
// counted (no loop runs forever), labels over 63 bytes and names over 255
// are refused, and at most 256 answer records are read.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "platform/IpAddress.hpp"

namespace quillfort {

struct DnsAddressAnswer {
    IpAddress address;
    std::uint32_t ttlSeconds = 0;  // the shortest along the chain
    // From the asked name to the name the address belongs to, lower-case,
    // without the final dot; never empty.
    std::vector<std::string> names;

    bool operator==(const DnsAddressAnswer&) const = default;
};

struct DnsResponse {
    std::string question;
    std::vector<DnsAddressAnswer> addresses;

    bool operator==(const DnsResponse&) const = default;
};

namespace DnsParser {

inline constexpr std::size_t maximumAnswers = 256;
inline constexpr std::size_t maximumChain = 16;

// A successful answer (response bit set, standard query, no error) to an IN
// question. Nothing for anything else. A message cut short keeps the records
// read before the cut.
[[nodiscard]] std::optional<DnsResponse> parseResponse(std::span<const std::uint8_t> message);

// The DNS message inside a TCP segment's payload (two length bytes first);
// the bytes that are there when the segment holds only its beginning.
[[nodiscard]] std::span<const std::uint8_t> messageInTcpPayload(std::span<const std::uint8_t> payload) noexcept;

}  // namespace DnsParser

}  // namespace quillfort
