// One accepted loopback TCP connection, used only from the bridge queue:
// partial receives that report the end of the stream, one final send, close.
// Most clients have their whole frame in the socket by the time it is
// accepted and take their answer in one send, so the connection first works
// on the bare descriptor without waiting; only a connection that would have
// to wait joins the queue's event loop (and its epoll set).
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>

#include "platform/Error.hpp"
#include "platform/FileDescriptor.hpp"
#include "platform/IpAddress.hpp"

namespace quillfort {

class LoopbackConnection : public std::enable_shared_from_this<LoopbackConnection> {
public:
    // `bytes` holds what arrived (possibly nothing); `isComplete` is true once the
    // peer has ended its side of the stream; `error` reports a failed receive.
    using ReceiveCompletion = std::function<void(std::string bytes, bool isComplete, std::optional<Error> error)>;
    using SendCompletion = std::function<void(std::optional<Error> error)>;

    // `descriptor` is a connected, non-blocking TCP socket; `peer` its remote end.
    LoopbackConnection(boost::asio::io_context& queue, FileDescriptor descriptor, IpEndpoint peer) noexcept;

    [[nodiscard]] const IpEndpoint& peer() const noexcept { return peer_; }
    // When the connection was accepted: its request's deadline counts from here.
    [[nodiscard]] std::chrono::steady_clock::time_point acceptedAt() const noexcept { return acceptedAt_; }

    // Asks for at least 1 and at most `maximumLength` (at least 1) bytes. The
    // completion runs at once when bytes (or the end, or an error) are already
    // there, else later on the queue; after close() it reports an error.
    // Returns true when the completion will come later: the read waits.
    bool receive(std::size_t maximumLength, ReceiveCompletion completion);

    // Sends `bytes` whole as the last thing on the connection; the completion
    // runs once the kernel has taken them all (at once, for an answer that
    // fits the socket's buffer) or the send failed. The caller closes.
    void sendFinal(std::string bytes, SendCompletion completion);

    // Closes the socket: the peer sees the end of the stream after everything
    // sent, and a pending receive or send completes with an error. Idempotent.
    void close() noexcept;

    // For the end of the queue: closes now, while the io_context still exists.
    // Whoever still holds the connection afterwards (a reply callback in the
    // coordinator, say) holds an empty shell: receive() and sendFinal() do
    // nothing, not even complete. Idempotent.
    void release() noexcept;

private:
    // Moves the descriptor into the event loop, for an operation that must wait.
    [[nodiscard]] bool joinEventLoop(std::optional<Error>& error);

    boost::asio::io_context& queue_;
    FileDescriptor descriptor_;                              // until the connection has to wait
    std::optional<boost::asio::ip::tcp::socket> socket_;     // from then on
    IpEndpoint peer_;
    std::chrono::steady_clock::time_point acceptedAt_;
    bool released_ = false;
};

}  // namespace quillfort
