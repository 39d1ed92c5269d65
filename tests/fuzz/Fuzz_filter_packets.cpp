// Bytes as the queue and the DNS log hand them over: IPv4 and IPv6 packets
// with options and extension headers, and the DNS messages in their UDP and
// TCP payloads. Every index must stay within the bytes given, and whatever
// parses must say things that hold.
#include <cstddef>
#include <cstdint>
#include <span>

#include "QuillfortFilter/packet/DnsMessage.hpp"
#include "QuillfortFilter/packet/PacketHeaders.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace quillfort;
    const std::span<const std::uint8_t> bytes(data, size);
    if (auto headers = PacketParser::parse(bytes)) {
        if (headers->payloadOffset > size || headers->payloadLength > size - headers->payloadOffset) __builtin_trap();
        auto payload = bytes.subspan(headers->payloadOffset, headers->payloadLength);
        (void)DnsParser::parseResponse(payload);
        (void)DnsParser::parseResponse(DnsParser::messageInTcpPayload(payload));
    }
    if (auto response = DnsParser::parseResponse(bytes)) {
        if (response->addresses.size() > DnsParser::maximumAnswers) __builtin_trap();
        for (const auto& answer : response->addresses) {
            if (answer.names.empty() || answer.names.size() > DnsParser::maximumChain) __builtin_trap();
            for (const auto& name : answer.names)
                if (name.size() > 255) __builtin_trap();
        }
    }
    return 0;
}
