#include "platform/SocketDiagnostics.hpp"

#include <linux/inet_diag.h>
#include <linux/netlink.h>
#include <linux/sock_diag.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <cstring>

#include <fmt/format.h>

namespace quillfort {

namespace {

void putAddress(std::uint32_t* target, const IpAddress& address) {
    std::memcpy(target, address.bytes.data(), address.length());
}

std::uint16_t networkPort(std::uint16_t port) { return htons(port); }

}  // namespace

Result<SocketDiagnostics> SocketDiagnostics::open() {
    FileDescriptor socket(::socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_SOCK_DIAG));
    if (!socket) return std::unexpected(Error::fromErrno(errno, "sock_diag netlink socket"));
    // A lookup never waits long: the kernel answers at once, or the reply was lost.
    timeval limit{1, 0};
    ::setsockopt(socket.get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    return SocketDiagnostics(std::move(socket));
}

Result<std::optional<SocketOwner>> SocketDiagnostics::lookup(Protocol protocol, const IpEndpoint& local,
                                                             const IpEndpoint& remote) const {
    const IpAddress localAddress = local.address.unmapped();
    const IpAddress remoteAddress = remote.address.unmapped();
    if (localAddress.family != remoteAddress.family)
        return std::unexpected(Error::withMessage("sock_diag lookup between addresses of two families"));

    struct {
        nlmsghdr header;
        inet_diag_req_v2 request;
    } message{};
    message.header.nlmsg_len = sizeof message;
    message.header.nlmsg_type = SOCK_DIAG_BY_FAMILY;
    message.header.nlmsg_flags = NLM_F_REQUEST;
    message.header.nlmsg_seq = ++sequence_;
    message.request.sdiag_family = localAddress.family == IpAddress::Family::v4 ? AF_INET : AF_INET6;
    message.request.sdiag_protocol = static_cast<std::uint8_t>(protocol);
    message.request.idiag_states = ~0u;
    message.request.id.idiag_cookie[0] = INET_DIAG_NOCOOKIE;
    message.request.id.idiag_cookie[1] = INET_DIAG_NOCOOKIE;
    // TCP looks a pair up as the packet from dst to src would be delivered; the
    // UDP lookup has src and dst the other way round (the kernel keeps that for
    // compatibility). Either way the result is the socket owning `local`.
    const bool swapped = protocol == Protocol::udp;
    const IpEndpoint& source = swapped ? remote : local;
    const IpEndpoint& destination = swapped ? local : remote;
    putAddress(message.request.id.idiag_src, swapped ? remoteAddress : localAddress);
    putAddress(message.request.id.idiag_dst, swapped ? localAddress : remoteAddress);
    message.request.id.idiag_sport = networkPort(source.port);
    message.request.id.idiag_dport = networkPort(destination.port);

    sockaddr_nl kernel{};
    kernel.nl_family = AF_NETLINK;
    if (::sendto(socket_.get(), &message, sizeof message, 0, reinterpret_cast<sockaddr*>(&kernel), sizeof kernel) < 0)
        return std::unexpected(Error::fromErrno(errno, "sock_diag request"));

    std::array<std::uint8_t, 8192> reply{};
    for (;;) {
        const ssize_t received = ::recv(socket_.get(), reply.data(), reply.size(), 0);
        if (received < 0) {
            if (errno == EINTR) continue;
            return std::unexpected(Error::fromErrno(errno, "sock_diag reply"));
        }
        auto result = parseReply(std::span(reply.data(), static_cast<std::size_t>(received)), sequence_);
        // A late reply to an earlier, abandoned request: read on.
        if (!result && result.error().code == std::errc::operation_canceled) continue;
        return result;
    }
}

Result<std::optional<SocketOwner>> SocketDiagnostics::parseReply(std::span<const std::uint8_t> reply,
                                                                 std::uint32_t sequence) {
    std::size_t offset = 0;
    while (reply.size() - offset >= sizeof(nlmsghdr)) {
        nlmsghdr header;
        std::memcpy(&header, reply.data() + offset, sizeof header);
        if (header.nlmsg_len < sizeof header || header.nlmsg_len > reply.size() - offset)
            return std::unexpected(Error::withMessage("sock_diag reply with a bad message length"));
        const auto body = reply.subspan(offset + sizeof header, header.nlmsg_len - sizeof header);
        offset += NLMSG_ALIGN(header.nlmsg_len) <= reply.size() - offset ? NLMSG_ALIGN(header.nlmsg_len)
                                                                         : reply.size() - offset;
        if (header.nlmsg_seq != sequence)
            return std::unexpected(Error{std::make_error_code(std::errc::operation_canceled), "stale sock_diag reply"});
        if (header.nlmsg_type == NLMSG_ERROR) {
            nlmsgerr error{};
            if (body.size() < sizeof error) return std::unexpected(Error::withMessage("truncated sock_diag error"));
            std::memcpy(&error, body.data(), sizeof error);
            if (error.error == 0) continue;  // an acknowledgement
            if (error.error == -ENOENT) return std::optional<SocketOwner>{};
            return std::unexpected(Error::fromErrno(-error.error, "sock_diag lookup"));
        }
        if (header.nlmsg_type == NLMSG_DONE) return std::optional<SocketOwner>{};
        if (header.nlmsg_type != SOCK_DIAG_BY_FAMILY) continue;
        inet_diag_msg message{};
        if (body.size() < sizeof message) return std::unexpected(Error::withMessage("truncated sock_diag answer"));
        std::memcpy(&message, body.data(), sizeof message);
        SocketOwner owner;
        owner.uid = message.idiag_uid;
        owner.inode = message.idiag_inode;
        owner.state = message.idiag_state;
        owner.cookie = static_cast<std::uint64_t>(message.id.idiag_cookie[1]) << 32 | message.id.idiag_cookie[0];
        return std::optional<SocketOwner>(owner);
    }
    return std::unexpected(Error::withMessage("sock_diag reply without an answer"));
}

}  // namespace quillfort
