// One accepted loopback TCP connection, used only from the bridge queue:
// partial receives that report the end of the stream, one final send, cancel.
#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include <boost/asio/ip/tcp.hpp>

#include "platform/Error.hpp"

namespace quillfort {

class LoopbackConnection : public std::enable_shared_from_this<LoopbackConnection> {
public:
    // `bytes` holds what arrived (possibly nothing); `isComplete` is true once the
    // peer has ended its side of the stream; `error` reports a failed receive.
    using ReceiveCompletion = std::function<void(std::string bytes, bool isComplete, std::optional<Error> error)>;
    using SendCompletion = std::function<void(std::optional<Error> error)>;

    explicit LoopbackConnection(boost::asio::ip::tcp::socket socket) noexcept;

    // Asks for at least 1 and at most `maximumLength` (at least 1) bytes. The
    // completion runs later on the queue; after cancel() it reports an error.
    void receive(std::size_t maximumLength, ReceiveCompletion completion);

    // Sends `bytes` whole as the last thing on the connection and ends our side
    // of the stream; the completion runs once the send has been processed.
    void sendFinal(std::string bytes, SendCompletion completion);

    // Closes the socket; pending operations complete with an error. Idempotent.
    void cancel() noexcept;

    // For the end of the queue: closes and destroys the socket now, while its
    // io_context still exists. Whoever still holds the connection afterwards (a
    // reply callback in the coordinator, say) holds an empty shell: receive()
    // and sendFinal() do nothing, not even complete. Idempotent.
    void release() noexcept;

private:
    std::optional<boost::asio::ip::tcp::socket> socket_;
};

}  // namespace quillfort
