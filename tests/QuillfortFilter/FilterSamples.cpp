#include "tests/QuillfortFilter/FilterSamples.hpp"

namespace quillfort::testing {

namespace {

void put16(Bytes8& out, std::uint16_t value) {
    out.push_back(static_cast<std::uint8_t>(value >> 8));
    out.push_back(static_cast<std::uint8_t>(value));
}

void put32(Bytes8& out, std::uint32_t value) {
    put16(out, static_cast<std::uint16_t>(value >> 16));
    put16(out, static_cast<std::uint16_t>(value));
}

}  // namespace

Bytes8 ipv4Packet(std::uint8_t protocol, const Bytes8& transport, std::uint8_t options) {
    const std::size_t header = 20 + options * 4u;
    Bytes8 packet{static_cast<std::uint8_t>(0x40 | (header / 4)), 0};
    put16(packet, static_cast<std::uint16_t>(header + transport.size()));
    packet.insert(packet.end(), {0, 1, 0, 0, 64, protocol, 0, 0, 10, 0, 0, 1, 10, 0, 0, 2});
    packet.insert(packet.end(), options * 4u, 1);  // NOP options
    packet.insert(packet.end(), transport.begin(), transport.end());
    return packet;
}

Bytes8 udpSegment(std::uint16_t sourcePort, std::uint16_t destinationPort, const Bytes8& payload) {
    Bytes8 segment;
    put16(segment, sourcePort);
    put16(segment, destinationPort);
    put16(segment, static_cast<std::uint16_t>(8 + payload.size()));
    put16(segment, 0);
    segment.insert(segment.end(), payload.begin(), payload.end());
    return segment;
}

Bytes8 tcpSyn(std::uint16_t sourcePort, std::uint16_t destinationPort) {
    Bytes8 segment;
    put16(segment, sourcePort);
    put16(segment, destinationPort);
    segment.insert(segment.end(), {0, 0, 0, 1, 0, 0, 0, 0, 0x50, 0x02, 0xff, 0xff, 0, 0, 0, 0});
    return segment;
}

void DnsBuilder::putName(Bytes8& out, std::string_view name) {
    while (!name.empty()) {
        const auto dot = name.find('.');
        const auto label = name.substr(0, dot);
        out.push_back(static_cast<std::uint8_t>(label.size()));
        out.insert(out.end(), label.begin(), label.end());
        name = dot == std::string_view::npos ? std::string_view() : name.substr(dot + 1);
    }
    out.push_back(0);
}

DnsBuilder& DnsBuilder::question(std::string_view name) {
    putName(body_, name);
    put16(body_, 1);
    put16(body_, 1);
    ++questions_;
    return *this;
}

DnsBuilder& DnsBuilder::address(std::string_view owner, std::vector<std::uint8_t> address, std::uint32_t ttl) {
    putName(body_, owner);
    put16(body_, address.size() == 4 ? 1 : 28);
    put16(body_, 1);
    put32(body_, ttl);
    put16(body_, static_cast<std::uint16_t>(address.size()));
    body_.insert(body_.end(), address.begin(), address.end());
    ++answers_;
    return *this;
}

DnsBuilder& DnsBuilder::cname(std::string_view owner, std::string_view target, std::uint32_t ttl) {
    putName(body_, owner);
    put16(body_, 5);
    put16(body_, 1);
    put32(body_, ttl);
    Bytes8 data;
    putName(data, target);
    put16(body_, static_cast<std::uint16_t>(data.size()));
    body_.insert(body_.end(), data.begin(), data.end());
    ++answers_;
    return *this;
}

DnsBuilder& DnsBuilder::raw(const Bytes8& bytes, std::uint16_t countAs) {
    body_.insert(body_.end(), bytes.begin(), bytes.end());
    answers_ = static_cast<std::uint16_t>(answers_ + countAs);
    return *this;
}

Bytes8 DnsBuilder::build() const {
    Bytes8 message;
    put16(message, 0x1234);
    put16(message, flags_);
    put16(message, questions_);
    put16(message, answers_);
    put16(message, 0);
    put16(message, 0);
    message.insert(message.end(), body_.begin(), body_.end());
    return message;
}

}  // namespace quillfort::testing
