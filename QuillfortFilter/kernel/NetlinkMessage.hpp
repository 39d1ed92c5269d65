// One netlink message of the netfilter family read from bytes of any origin
// and alignment: the header and every attribute header are copied out, and
// every length is checked against the bytes given, so no read strays past
// them. The queue's and the log's readers parse the kernel's messages with it.
#pragma once

#include <cstdint>
#include <optional>
#include <span>

namespace quillfort {

class NetlinkMessage {
public:
    // The message at the start of `bytes`, when its header is whole, its
    // length fits in `bytes` and it has room for the netfilter family header.
    [[nodiscard]] static std::optional<NetlinkMessage> at(std::span<const std::uint8_t> bytes) noexcept;

    [[nodiscard]] std::uint16_t type() const noexcept { return type_; }
    // The payload of the first attribute of `type`; nothing when there is none.
    [[nodiscard]] std::optional<std::span<const std::uint8_t>> attribute(std::uint16_t type) const noexcept;
    // A 32-bit attribute in network byte order; nothing when absent or short.
    [[nodiscard]] std::optional<std::uint32_t> attributeU32(std::uint16_t type) const noexcept;

private:
    NetlinkMessage(std::uint16_t type, std::span<const std::uint8_t> attributes)
        : type_(type), attributes_(attributes) {}

    std::uint16_t type_;
    std::span<const std::uint8_t> attributes_;
};

}  // namespace quillfort
