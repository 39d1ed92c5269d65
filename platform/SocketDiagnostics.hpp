// Who owns a socket of this network namespace: the kernel's sock_diag netlink
// interface, asked for one exact socket at a time (one round trip). The agent
// uses it to learn which user a loopback client runs as, the filter to find a
// flow's socket and the user behind a listener.
#pragma once

#include <cstdint>
#include <optional>
#include <span>

#include "platform/Error.hpp"
#include "platform/FileDescriptor.hpp"
#include "platform/IpAddress.hpp"

namespace quillfort {

struct SocketOwner {
    std::uint32_t uid = 0;
    std::uint64_t inode = 0;   // 0 for a socket no process holds any more (time-wait, orphans)
    std::uint64_t cookie = 0;  // the kernel's socket cookie
    std::uint8_t state = 0;    // TCP state number (10 = listening); 7 for UDP

    bool operator==(const SocketOwner&) const = default;
};

class SocketDiagnostics {
public:
    enum class Protocol : std::uint8_t { tcp = 6, udp = 17 };

    [[nodiscard]] static Result<SocketDiagnostics> open();

    // The socket that a packet from `remote` to `local` would reach: the
    // connected socket for that pair when there is one, else the socket
    // listening on (or bound to) `local`. For the socket that sent a packet, pass
    // the packet's source as `local`. Nothing when no socket matches; an error
    // when the kernel could not be asked.
    [[nodiscard]] Result<std::optional<SocketOwner>> lookup(Protocol protocol, const IpEndpoint& local,
                                                            const IpEndpoint& remote) const;

    // The answer to one lookup, as the kernel sent it: an inet_diag message, or
    // an error message (ENOENT: no such socket). Bounds every read by the
    // length it was given, so any bytes at all are safe to pass.
    [[nodiscard]] static Result<std::optional<SocketOwner>> parseReply(std::span<const std::uint8_t> reply,
                                                                       std::uint32_t sequence);

private:
    explicit SocketDiagnostics(FileDescriptor socket) : socket_(std::move(socket)) {}

    FileDescriptor socket_;
    mutable std::uint32_t sequence_ = 0;
};

}  // namespace quillfort
