// One netlink socket of the netfilter family, through libmnl: sends requests
// and transactions and reads their acknowledgements, or serves as the
// descriptor an event loop waits on (queue, log).
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

#include "platform/Error.hpp"

struct mnl_socket;

namespace quillfort {

class NetlinkChannel {
public:
    // A socket of `protocol` (NETLINK_NETFILTER), bound with an automatic port id.
    [[nodiscard]] static Result<NetlinkChannel> open(int protocol);

    NetlinkChannel(NetlinkChannel&& other) noexcept;
    NetlinkChannel& operator=(NetlinkChannel&& other) noexcept;
    NetlinkChannel(const NetlinkChannel&) = delete;
    NetlinkChannel& operator=(const NetlinkChannel&) = delete;
    ~NetlinkChannel();

    [[nodiscard]] int descriptor() const noexcept;
    [[nodiscard]] std::uint32_t portID() const noexcept;
    [[nodiscard]] std::uint32_t nextSequence() noexcept { return ++sequence_; }

    // Sends `messages` (one or more netlink messages, each asking for an
    // acknowledgement) and reads the answers until `expectedAcks` arrived or
    // the first error did; the first error is returned, named after `what`.
    [[nodiscard]] VoidResult transact(std::span<const std::uint8_t> messages, std::size_t expectedAcks,
                                      std::string_view what);
    // Sends without waiting for anything.
    [[nodiscard]] VoidResult send(std::span<const std::uint8_t> messages, std::string_view what);

    // Sets a socket option at SOL_NETLINK or SOL_SOCKET level; errors are returned.
    [[nodiscard]] VoidResult setOption(int level, int option, int value, std::string_view what);

private:
    explicit NetlinkChannel(mnl_socket* socket) noexcept : socket_(socket) {}

    mnl_socket* socket_ = nullptr;
    std::uint32_t sequence_ = 0;
};

}  // namespace quillfort
