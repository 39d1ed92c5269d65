#include "QuillfortAgent/transports/LoopbackListener.hpp"

#include <netinet/in.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include <boost/asio/error.hpp>
#include <boost/asio/ip/address.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/socket_base.hpp>

#include "QuillfortAgent/transports/LoopbackPromptError.hpp"

namespace quillfort {

namespace {

Error errorFrom(const boost::system::error_code& code) {
    return errorFromNetwork(code.value(), code.category() == boost::system::system_category(), code.message());
}

// Failures that concern only the one connection being accepted (the peer gave
// up before we took it): the next accept can go ahead at once. Anything else,
// above all running out of descriptors (EMFILE, ENFILE) or kernel memory, clears
// up only once other connections end, and accepting again at once would spin.
bool concernsOnlyThatConnection(int err) {
    switch (err) {
        case ECONNABORTED:
        case EPROTO:
        case EINTR:
            return true;
        default:
            return false;
    }
}

IpEndpoint endpointOf(const sockaddr_in& address) {
    IpEndpoint endpoint;
    std::memcpy(endpoint.address.bytes.data(), &address.sin_addr, 4);
    endpoint.port = ntohs(address.sin_port);
    return endpoint;
}

}  // namespace

LoopbackListener::LoopbackListener(boost::asio::io_context& context, boost::asio::ip::tcp::endpoint endpoint)
    : context_(context), acceptor_(context), pauseTimer_(context), endpoint_(std::move(endpoint)) {}

Result<std::shared_ptr<LoopbackListener>> LoopbackListener::make(boost::asio::io_context& context,
                                                                 const std::string& host, std::uint16_t port) {
    boost::system::error_code code;
    const auto address = boost::asio::ip::make_address_v4(host, code);
    if (code) return std::unexpected(errorFrom(code));
    const boost::asio::ip::tcp::endpoint endpoint(address, port);

    std::shared_ptr<LoopbackListener> listener(new LoopbackListener(context, endpoint));
    listener->acceptor_.open(endpoint.protocol(), code);
    if (code) return std::unexpected(errorFrom(code));
    // Lets a restarted agent bind while connections of the previous one linger
    // in TIME_WAIT; it does not let two listeners share the port.
    listener->acceptor_.set_option(boost::asio::socket_base::reuse_address(true), code);
    if (code) return std::unexpected(errorFrom(code));
    listener->listen();
    return listener;
}

// Clients may connect from here on; the kernel holds their connections until
// start() runs on the queue, so the port is open as soon as the agent is.
void LoopbackListener::listen() {
    boost::system::error_code code;
    acceptor_.bind(endpoint_, code);
    if (!code) acceptor_.listen(boost::asio::socket_base::max_listen_connections, code);
    if (!code) acceptor_.non_blocking(true, code);
    if (code) {
        listenError_ = errorFrom(code);
        return;
    }
    const auto local = acceptor_.local_endpoint(code);
    boundPort_ = code ? endpoint_.port() : local.port();
}

void LoopbackListener::start(StateHandler stateHandler, ConnectionHandler connectionHandler,
                             AcceptErrorHandler acceptErrorHandler) {
    if (cancelled_) return;
    connectionHandler_ = std::move(connectionHandler);
    acceptErrorHandler_ = std::move(acceptErrorHandler);
    if (listenError_) {
        boundPort_ = 0;
        if (stateHandler) stateHandler(State::failed, listenError_);
        return;
    }
    if (stateHandler) stateHandler(State::ready, std::nullopt);
    acceptWaiting();
}

void LoopbackListener::cancel() noexcept {
    cancelled_ = true;
    boost::system::error_code ignored;
    pauseTimer_.cancel();
    acceptor_.close(ignored);
}

IpEndpoint LoopbackListener::localEndpoint() const noexcept {
    IpEndpoint endpoint;
    const auto bytes = endpoint_.address().to_v4().to_bytes();
    std::copy(bytes.begin(), bytes.end(), endpoint.address.bytes.begin());
    endpoint.port = boundPort_.load();
    return endpoint;
}

void LoopbackListener::waitForConnections() {
    if (cancelled_) return;
    acceptor_.async_wait(boost::asio::ip::tcp::acceptor::wait_read,
                         [self = shared_from_this()](const boost::system::error_code& code) {
                             if (self->cancelled_ || code == boost::asio::error::operation_aborted) return;
                             self->acceptWaiting();
                         });
}

void LoopbackListener::acceptWaiting() {
    for (int taken = 0; taken < acceptBatch; ++taken) {
        if (cancelled_) return;
        sockaddr_in peer{};
        socklen_t length = sizeof peer;
        const int fd = ::accept4(acceptor_.native_handle(), reinterpret_cast<sockaddr*>(&peer), &length,
                                 SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (fd < 0) {
            const int err = errno;
            if (err == EAGAIN || err == EWOULDBLOCK) {
                waitForConnections();
                return;
            }
            if (acceptErrorHandler_) acceptErrorHandler_(errorFromNetwork(err, true, std::strerror(err)));
            if (concernsOnlyThatConnection(err)) continue;
            pauseTimer_.expires_after(resourceExhaustionPause);
            pauseTimer_.async_wait([self = shared_from_this()](const boost::system::error_code& waitCode) {
                if (!waitCode && !self->cancelled_) self->acceptWaiting();
            });
            return;
        }
        if (connectionHandler_) {
            connectionHandler_(std::make_shared<LoopbackConnection>(context_, FileDescriptor(fd), endpointOf(peer)));
        } else {
            ::close(fd);
        }
    }
    // More may be waiting: take them after what else is queued.
    boost::asio::post(context_, [self = shared_from_this()] {
        if (!self->cancelled_) self->acceptWaiting();
    });
}

}  // namespace quillfort
