#include "QuillfortFilter/packet/DnsMessage.hpp"

#include <algorithm>
#include <map>

namespace quillfort::DnsParser {

namespace {

constexpr std::size_t headerLength = 12;
constexpr std::size_t maximumNameLength = 255;
constexpr std::size_t maximumLabelLength = 63;
constexpr int maximumPointers = 32;
constexpr std::uint16_t typeA = 1, typeCname = 5, typeAaaa = 28, classIn = 1;

std::uint16_t read16(std::span<const std::uint8_t> bytes, std::size_t offset) {
    return static_cast<std::uint16_t>(bytes[offset] << 8 | bytes[offset + 1]);
}

std::uint32_t read32(std::span<const std::uint8_t> bytes, std::size_t offset) {
    return static_cast<std::uint32_t>(read16(bytes, offset)) << 16 | read16(bytes, offset + 2);
}

bool nameCharacter(std::uint8_t c) {
    return (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' || c == '_' || c == '*';
}

// Reads the (possibly compressed) name at `offset`; `end` receives the
// offset just after the name as written there. Names with bytes that cannot
// be a host name's are refused, so what reaches a prompt or a rule is plain.
std::optional<std::string> readName(std::span<const std::uint8_t> message, std::size_t offset, std::size_t& end) {
    std::string name;
    std::optional<std::size_t> afterFirstPointer;
    int pointers = 0;
    for (;;) {
        if (offset >= message.size()) return std::nullopt;
        const std::uint8_t length = message[offset];
        if ((length & 0xc0) == 0xc0) {
            if (offset + 1 >= message.size() || ++pointers > maximumPointers) return std::nullopt;
            if (!afterFirstPointer) afterFirstPointer = offset + 2;
            offset = static_cast<std::size_t>(length & 0x3f) << 8 | message[offset + 1];
            continue;
        }
        if ((length & 0xc0) != 0) return std::nullopt;  // extended label types are not names
        if (length == 0) {
            end = afterFirstPointer.value_or(offset + 1);
            return name;
        }
        if (length > maximumLabelLength || offset + 1 + length > message.size()) return std::nullopt;
        if (name.size() + length + (name.empty() ? 0 : 1) > maximumNameLength) return std::nullopt;
        if (!name.empty()) name += '.';
        for (std::size_t i = 0; i < length; ++i) {
            std::uint8_t c = message[offset + 1 + i];
            if (c >= 'A' && c <= 'Z') c = static_cast<std::uint8_t>(c - 'A' + 'a');
            if (!nameCharacter(c)) return std::nullopt;
            name += static_cast<char>(c);
        }
        offset += 1 + length;
    }
}

struct Record {
    std::string owner;
    std::uint16_t type = 0;
    std::uint32_t ttl = 0;
    std::optional<IpAddress> address;
    std::string target;  // CNAME
};

}  // namespace

std::span<const std::uint8_t> messageInTcpPayload(std::span<const std::uint8_t> payload) noexcept {
    if (payload.size() < 2) return {};
    const std::size_t length = read16(payload, 0);
    return payload.subspan(2, std::min(length, payload.size() - 2));
}

std::optional<DnsResponse> parseResponse(std::span<const std::uint8_t> message) {
    if (message.size() < headerLength) return std::nullopt;
    const std::uint16_t flags = read16(message, 2);
    const bool response = (flags & 0x8000) != 0;
    const unsigned opcode = (flags >> 11) & 0xf;
    const unsigned rcode = flags & 0xf;
    const std::uint16_t questions = read16(message, 4);
    const std::uint16_t answers = read16(message, 6);
    if (!response || opcode != 0 || rcode != 0 || questions == 0) return std::nullopt;

    std::size_t offset = headerLength;
    DnsResponse result;
    for (std::uint16_t index = 0; index < questions; ++index) {
        std::size_t end = 0;
        auto name = readName(message, offset, end);
        if (!name || end + 4 > message.size()) return std::nullopt;
        if (index == 0) {
            if (read16(message, end + 2) != classIn || name->empty()) return std::nullopt;
            result.question = std::move(*name);
        }
        offset = end + 4;
    }

    std::vector<Record> records;
    for (std::size_t index = 0; index < std::min<std::size_t>(answers, maximumAnswers); ++index) {
        std::size_t end = 0;
        auto owner = readName(message, offset, end);
        if (!owner || end + 10 > message.size()) break;  // cut short: keep what was read
        Record record;
        record.owner = std::move(*owner);
        record.type = read16(message, end);
        const std::uint16_t recordClass = read16(message, end + 2);
        record.ttl = read32(message, end + 4);
        const std::size_t dataLength = read16(message, end + 8);
        const std::size_t data = end + 10;
        if (data + dataLength > message.size()) break;
        offset = data + dataLength;
        if (recordClass != classIn) continue;
        if (record.type == typeA && dataLength == 4) {
            record.address = IpAddress::fromBytes(message.subspan(data, 4));
        } else if (record.type == typeAaaa && dataLength == 16) {
            record.address = IpAddress::fromBytes(message.subspan(data, 16));
        } else if (record.type == typeCname) {
            std::size_t targetEnd = 0;
            auto target = readName(message, data, targetEnd);
            if (!target || targetEnd > data + dataLength) continue;
            record.target = std::move(*target);
        } else {
            continue;
        }
        records.push_back(std::move(record));
    }

    // Follow the CNAMEs from the asked name; each link may only be used once,
    // so a loop of CNAMEs ends the chain.
    std::vector<std::string> chain{result.question};
    std::vector<std::uint32_t> chainTtl{UINT32_MAX};
    while (chain.size() < maximumChain) {
        auto next = std::find_if(records.begin(), records.end(), [&](const Record& r) {
            return r.type == typeCname && r.owner == chain.back() &&
                   std::find(chain.begin(), chain.end(), r.target) == chain.end();
        });
        if (next == records.end()) break;
        chainTtl.push_back(std::min(chainTtl.back(), next->ttl));
        chain.push_back(next->target);
    }
    for (const auto& record : records) {
        if (!record.address) continue;
        auto link = std::find(chain.begin(), chain.end(), record.owner);
        if (link == chain.end()) continue;  // an address for a name nobody asked about
        const auto depth = static_cast<std::size_t>(link - chain.begin());
        result.addresses.push_back(DnsAddressAnswer{*record.address, std::min(record.ttl, chainTtl[depth]),
                                                    std::vector<std::string>(chain.begin(), link + 1)});
    }
    return result;
}

}  // namespace quillfort::DnsParser
