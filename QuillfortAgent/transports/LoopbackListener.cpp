#include "QuillfortAgent/transports/LoopbackListener.hpp"

#include <cerrno>
#include <utility>

#include <boost/asio/error.hpp>
#include <boost/asio/ip/address.hpp>
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
// up only once other connections end, and re-arming at once would spin.
bool concernsOnlyThatConnection(const boost::system::error_code& code) {
    if (code.category() != boost::system::system_category()) return false;
    switch (code.value()) {
        case ECONNABORTED:
        case EPROTO:
        case EINTR:
        case EAGAIN:
            return true;
        default:
            return false;
    }
}

}  // namespace

LoopbackListener::LoopbackListener(boost::asio::io_context& context, boost::asio::ip::tcp::endpoint endpoint)
    : acceptor_(context), pauseTimer_(context), endpoint_(std::move(endpoint)) {}

Result<std::shared_ptr<LoopbackListener>> LoopbackListener::make(boost::asio::io_context& context,
                                                                 const std::string& host, std::uint16_t port) {
    boost::system::error_code code;
    const auto address = boost::asio::ip::make_address(host, code);
    if (code) return std::unexpected(errorFrom(code));
    const boost::asio::ip::tcp::endpoint endpoint(address, port);

    std::shared_ptr<LoopbackListener> listener(new LoopbackListener(context, endpoint));
    listener->acceptor_.open(endpoint.protocol(), code);
    if (code) return std::unexpected(errorFrom(code));
    // Lets a restarted agent bind while connections of the previous one linger
    // in TIME_WAIT; it does not let two listeners share the port.
    listener->acceptor_.set_option(boost::asio::socket_base::reuse_address(true), code);
    if (code) return std::unexpected(errorFrom(code));
    return listener;
}

void LoopbackListener::start(StateHandler stateHandler, ConnectionHandler connectionHandler,
                             AcceptErrorHandler acceptErrorHandler) {
    if (cancelled_) return;
    connectionHandler_ = std::move(connectionHandler);
    acceptErrorHandler_ = std::move(acceptErrorHandler);

    boost::system::error_code code;
    acceptor_.bind(endpoint_, code);
    if (!code) acceptor_.listen(boost::asio::socket_base::max_listen_connections, code);
    if (code) {
        if (stateHandler) stateHandler(State::failed, errorFrom(code));
        return;
    }
    const auto local = acceptor_.local_endpoint(code);
    boundPort_ = code ? endpoint_.port() : local.port();
    if (stateHandler) stateHandler(State::ready, std::nullopt);
    acceptNext();
}

void LoopbackListener::cancel() noexcept {
    cancelled_ = true;
    boost::system::error_code ignored;
    pauseTimer_.cancel();
    acceptor_.close(ignored);
}

void LoopbackListener::acceptNext() {
    if (cancelled_) return;
    acceptor_.async_accept(
        [self = shared_from_this()](const boost::system::error_code& code, boost::asio::ip::tcp::socket socket) {
            self->handleAccept(code, std::move(socket));
        });
}

void LoopbackListener::handleAccept(const boost::system::error_code& code, boost::asio::ip::tcp::socket socket) {
    if (cancelled_ || code == boost::asio::error::operation_aborted) return;
    if (!code) {
        if (connectionHandler_) connectionHandler_(std::make_shared<LoopbackConnection>(std::move(socket)));
        acceptNext();
        return;
    }
    if (acceptErrorHandler_) acceptErrorHandler_(errorFrom(code));
    if (concernsOnlyThatConnection(code)) {
        acceptNext();
        return;
    }
    pauseTimer_.expires_after(resourceExhaustionPause);
    pauseTimer_.async_wait([self = shared_from_this()](const boost::system::error_code& waitCode) {
        if (!waitCode) self->acceptNext();
    });
}

}  // namespace quillfort
