// Packets and DNS messages built byte by byte for the filter's tests and
// fuzz seeds: valid ones to start from, so each case changes one thing.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace quillfort::testing {

using Bytes8 = std::vector<std::uint8_t>;

// An IPv4 packet (header without options) around `transport`.
[[nodiscard]] Bytes8 ipv4Packet(std::uint8_t protocol, const Bytes8& transport, std::uint8_t options = 0);
// A UDP header and payload from `sourcePort` to `destinationPort`.
[[nodiscard]] Bytes8 udpSegment(std::uint16_t sourcePort, std::uint16_t destinationPort, const Bytes8& payload = {});
// A TCP SYN from `sourcePort` to `destinationPort`.
[[nodiscard]] Bytes8 tcpSyn(std::uint16_t sourcePort, std::uint16_t destinationPort);

// A DNS message written record by record.
class DnsBuilder {
public:
    explicit DnsBuilder(std::uint16_t flags = 0x8180) : flags_(flags) {}
    DnsBuilder& question(std::string_view name);
    DnsBuilder& address(std::string_view owner, std::vector<std::uint8_t> address, std::uint32_t ttl = 60);
    DnsBuilder& cname(std::string_view owner, std::string_view target, std::uint32_t ttl = 300);
    // A record whose bytes are given whole (names compressed or broken by hand).
    DnsBuilder& raw(const Bytes8& bytes, std::uint16_t countAs = 1);
    [[nodiscard]] Bytes8 build() const;

    static void putName(Bytes8& out, std::string_view name);

private:
    std::uint16_t flags_;
    std::uint16_t questions_ = 0;
    std::uint16_t answers_ = 0;
    Bytes8 body_;
};

}  // namespace quillfort::testing
