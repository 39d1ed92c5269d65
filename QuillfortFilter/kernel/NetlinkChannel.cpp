#include "QuillfortFilter/kernel/NetlinkChannel.hpp"

#include <libmnl/libmnl.h>
#include <linux/netlink.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <optional>
#include <utility>
#include <vector>

#include <fmt/format.h>

namespace quillfort {

Result<NetlinkChannel> NetlinkChannel::open(int protocol) {
    mnl_socket* socket = mnl_socket_open2(protocol, SOCK_CLOEXEC);
    if (socket == nullptr) return std::unexpected(Error::fromErrno(errno, "netfilter netlink socket"));
    NetlinkChannel channel(socket);
    if (mnl_socket_bind(socket, 0, MNL_SOCKET_AUTOPID) < 0)
        return std::unexpected(Error::fromErrno(errno, "netfilter netlink bind"));
    return channel;
}

NetlinkChannel::NetlinkChannel(NetlinkChannel&& other) noexcept
    : socket_(std::exchange(other.socket_, nullptr)), sequence_(other.sequence_) {}

NetlinkChannel& NetlinkChannel::operator=(NetlinkChannel&& other) noexcept {
    if (this != &other) {
        if (socket_ != nullptr) mnl_socket_close(socket_);
        socket_ = std::exchange(other.socket_, nullptr);
        sequence_ = other.sequence_;
    }
    return *this;
}

NetlinkChannel::~NetlinkChannel() {
    if (socket_ != nullptr) mnl_socket_close(socket_);
}

int NetlinkChannel::descriptor() const noexcept { return mnl_socket_get_fd(socket_); }

std::uint32_t NetlinkChannel::portID() const noexcept { return mnl_socket_get_portid(socket_); }

VoidResult NetlinkChannel::send(std::span<const std::uint8_t> messages, std::string_view what) {
    if (mnl_socket_sendto(socket_, messages.data(), messages.size()) < 0)
        return std::unexpected(Error::fromErrno(errno, what));
    return {};
}

VoidResult NetlinkChannel::transact(std::span<const std::uint8_t> messages, std::size_t expectedAcks,
                                    std::string_view what) {
    // Replies belong to this transaction when their sequence numbers lie in
    // the range its messages used; anything older is a leftover and skipped.
    std::uint32_t first = UINT32_MAX, last = 0;
    int length = static_cast<int>(messages.size());
    for (auto* header = reinterpret_cast<const nlmsghdr*>(messages.data()); mnl_nlmsg_ok(header, length);
         header = mnl_nlmsg_next(header, &length)) {
        first = std::min(first, header->nlmsg_seq);
        last = std::max(last, header->nlmsg_seq);
    }
    if (auto sent = send(messages, what); !sent) return sent;
    // The kernel answers every message that asked for it, failed or not, so
    // all answers are read even after the first error: the next transaction
    // must not find this one's leftovers.
    std::vector<std::uint8_t> buffer(MNL_SOCKET_BUFFER_SIZE);
    std::optional<Error> firstError;
    std::size_t answered = 0;
    while (answered < expectedAcks) {
        const ssize_t received = mnl_socket_recvfrom(socket_, buffer.data(), buffer.size());
        if (received < 0) {
            if (errno == EINTR) continue;
            return std::unexpected(firstError.value_or(Error::fromErrno(errno, what)));
        }
        int remaining = static_cast<int>(received);
        for (auto* header = reinterpret_cast<const nlmsghdr*>(buffer.data()); mnl_nlmsg_ok(header, remaining);
             header = mnl_nlmsg_next(header, &remaining)) {
            if (header->nlmsg_type != NLMSG_ERROR || header->nlmsg_seq < first || header->nlmsg_seq > last) continue;
            ++answered;
            if (mnl_nlmsg_get_payload_len(header) < sizeof(nlmsgerr)) {
                if (!firstError) firstError = Error::withMessage(fmt::format("{}: truncated acknowledgement", what));
                continue;
            }
            const auto* error = static_cast<const nlmsgerr*>(mnl_nlmsg_get_payload(header));
            if (error->error != 0 && !firstError) firstError = Error::fromErrno(-error->error, what);
        }
    }
    if (firstError) return std::unexpected(*firstError);
    return {};
}

VoidResult NetlinkChannel::setOption(int level, int option, int value, std::string_view what) {
    if (::setsockopt(descriptor(), level, option, &value, sizeof value) < 0)
        return std::unexpected(Error::fromErrno(errno, what));
    return {};
}

}  // namespace quillfort
