#include "QuillfortAgent/transports/LoopbackConnection.hpp"

#include <algorithm>
#include <utility>

#include <boost/asio/error.hpp>
#include <boost/asio/write.hpp>
#include "QuillfortAgent/transports/LoopbackPromptError.hpp"

namespace quillfort {

namespace {

// Enough for any real request in a handful of reads, without tying up memory
// per waiting connection.
constexpr std::size_t receiveChunkSize = 64 * 1024;

Error errorFrom(const boost::system::error_code& code) {
    return errorFromNetwork(code.value(), code.category() == boost::system::system_category(), code.message());
}

}  // namespace

LoopbackConnection::LoopbackConnection(boost::asio::ip::tcp::socket socket) noexcept
    : socket_(std::in_place, std::move(socket)) {}

void LoopbackConnection::receive(std::size_t maximumLength, ReceiveCompletion completion) {
    if (!socket_) return;
    const std::size_t length = std::clamp<std::size_t>(maximumLength, 1, receiveChunkSize);
    auto buffer = std::make_shared<std::string>(length, '\0');
    socket_->async_read_some(
        boost::asio::buffer(buffer->data(), buffer->size()),
        [self = shared_from_this(), buffer, completion = std::move(completion)](
            const boost::system::error_code& code, std::size_t received) {
            buffer->resize(received);
            if (code == boost::asio::error::eof) {
                completion(std::move(*buffer), true, std::nullopt);
            } else if (code) {
                completion(std::string(), false, errorFrom(code));
            } else {
                completion(std::move(*buffer), false, std::nullopt);
            }
        });
}

void LoopbackConnection::sendFinal(std::string bytes, SendCompletion completion) {
    if (!socket_) return;
    auto payload = std::make_shared<std::string>(std::move(bytes));
    boost::asio::async_write(
        *socket_, boost::asio::buffer(*payload),
        [self = shared_from_this(), payload, completion = std::move(completion)](
            const boost::system::error_code& code, std::size_t) {
            if (code) {
                completion(errorFrom(code));
                return;
            }
            boost::system::error_code ignored;
            if (self->socket_) self->socket_->shutdown(boost::asio::ip::tcp::socket::shutdown_send, ignored);
            completion(std::nullopt);
        });
}

void LoopbackConnection::cancel() noexcept {
    boost::system::error_code ignored;
    if (!socket_ || !socket_->is_open()) return;
    socket_->shutdown(boost::asio::ip::tcp::socket::shutdown_both, ignored);
    socket_->close(ignored);
}

void LoopbackConnection::release() noexcept {
    cancel();
    socket_.reset();
}

}  // namespace quillfort
