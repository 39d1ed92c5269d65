// The loopback TCP listener, used only from the bridge queue: binds, reports
// ready or failed once, then hands every accepted connection on until it is
// cancelled. Connections are taken in batches straight from the kernel, each
// as a bare non-blocking descriptor, so one that is served at once never
// enters the event loop. Accept errors never end it; after one that is not the
// peer's alone (out of file descriptors, above all) it pauses briefly instead
// of spinning.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/steady_timer.hpp>

#include "QuillfortAgent/transports/LoopbackConnection.hpp"
#include "platform/Error.hpp"
#include "platform/IpAddress.hpp"

namespace quillfort {

class LoopbackListener : public std::enable_shared_from_this<LoopbackListener> {
public:
    enum class State { ready, failed };

    using StateHandler = std::function<void(State state, std::optional<Error> error)>;
    using ConnectionHandler = std::function<void(std::shared_ptr<LoopbackConnection> connection)>;
    // An accept that failed; the listener keeps accepting.
    using AcceptErrorHandler = std::function<void(const Error& error)>;

    // How long accepting pauses after an accept error that may persist.
    static constexpr std::chrono::milliseconds resourceExhaustionPause{100};
    // Connections taken from the kernel in one turn of the queue, so that a
    // flood of them leaves room for the file bridge and for answers.
    static constexpr int acceptBatch = 16;

    // Creates the socket for `host` (an IPv4 literal) and `port` (0: any free
    // port), binds and listens; an address in use is reported as the failed
    // state by start(), not as an error here.
    [[nodiscard]] static Result<std::shared_ptr<LoopbackListener>> make(boost::asio::io_context& context,
                                                                        const std::string& host, std::uint16_t port);

    // On the queue: reports ready (or failed, and stops), then accepts.
    void start(StateHandler stateHandler, ConnectionHandler connectionHandler,
               AcceptErrorHandler acceptErrorHandler = {});

    // On the queue: stops accepting and closes the socket. Idempotent.
    void cancel() noexcept;

    // The bound port once ready, else 0; readable from any thread.
    [[nodiscard]] std::uint16_t port() const noexcept { return boundPort_.load(); }
    // The address and port clients connect to, once ready.
    [[nodiscard]] IpEndpoint localEndpoint() const noexcept;

private:
    LoopbackListener(boost::asio::io_context& context, boost::asio::ip::tcp::endpoint endpoint);

    void listen();
    void waitForConnections();
    void acceptWaiting();

    boost::asio::io_context& context_;
    boost::asio::ip::tcp::acceptor acceptor_;
    boost::asio::steady_timer pauseTimer_;
    boost::asio::ip::tcp::endpoint endpoint_;
    ConnectionHandler connectionHandler_;
    AcceptErrorHandler acceptErrorHandler_;
    std::optional<Error> listenError_;
    bool cancelled_ = false;
    std::atomic<std::uint16_t> boundPort_{0};
};

}  // namespace quillfort
