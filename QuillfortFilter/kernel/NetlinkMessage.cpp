#include "QuillfortFilter/kernel/NetlinkMessage.hpp"

#include <arpa/inet.h>
#include <linux/netfilter/nfnetlink.h>
#include <linux/netlink.h>

#include <cstring>

namespace quillfort {

std::optional<NetlinkMessage> NetlinkMessage::at(std::span<const std::uint8_t> bytes) noexcept {
    nlmsghdr header{};
    if (bytes.size() < sizeof header) return std::nullopt;
    std::memcpy(&header, bytes.data(), sizeof header);
    const std::size_t start = NLMSG_ALIGN(sizeof header) + NLMSG_ALIGN(sizeof(nfgenmsg));
    if (header.nlmsg_len < start || header.nlmsg_len > bytes.size()) return std::nullopt;
    return NetlinkMessage(header.nlmsg_type, bytes.subspan(start, header.nlmsg_len - start));
}

std::optional<std::span<const std::uint8_t>> NetlinkMessage::attribute(std::uint16_t type) const noexcept {
    std::size_t offset = 0;
    while (attributes_.size() - offset >= sizeof(nlattr)) {
        nlattr header{};
        std::memcpy(&header, attributes_.data() + offset, sizeof header);
        if (header.nla_len < sizeof header || header.nla_len > attributes_.size() - offset) return std::nullopt;
        if ((header.nla_type & NLA_TYPE_MASK) == type)
            return attributes_.subspan(offset + NLA_HDRLEN, header.nla_len - NLA_HDRLEN);
        const std::size_t next = NLA_ALIGN(header.nla_len);
        if (next > attributes_.size() - offset) return std::nullopt;
        offset += next;
    }
    return std::nullopt;
}

std::optional<std::uint32_t> NetlinkMessage::attributeU32(std::uint16_t type) const noexcept {
    auto payload = attribute(type);
    if (!payload || payload->size() < sizeof(std::uint32_t)) return std::nullopt;
    std::uint32_t value = 0;
    std::memcpy(&value, payload->data(), sizeof value);
    return ntohl(value);
}

}  // namespace quillfort
