// Copies of the DNS answers this machine receives, from the log group the
// filter's kernel rules send them to. Reading them costs the answers no time:
// the kernel delivers the answer and the copy independently.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <vector>

#include "QuillfortFilter/kernel/NetlinkChannel.hpp"
#include "platform/Error.hpp"

namespace quillfort {

class DnsAnswerLog {
public:
    [[nodiscard]] static Result<DnsAnswerLog> open(std::uint16_t group);

    [[nodiscard]] int descriptor() const noexcept { return channel_.descriptor(); }

    // Calls `packet` with each logged packet (from its network header on)
    // that is waiting, without blocking; returns how many were read.
    [[nodiscard]] Result<std::size_t> receive(const std::function<void(std::span<const std::uint8_t>)>& packet,
                                              std::size_t limit = 256);

    // The packet inside one log message; nothing for any other message or a
    // malformed one. Any bytes at all are safe to pass.
    [[nodiscard]] static std::optional<std::span<const std::uint8_t>> packetIn(std::span<const std::uint8_t> message);

private:
    explicit DnsAnswerLog(NetlinkChannel channel) : channel_(std::move(channel)) {}

    NetlinkChannel channel_;
    std::vector<std::uint8_t> buffer_;
};

}  // namespace quillfort
