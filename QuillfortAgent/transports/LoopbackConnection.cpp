#include "QuillfortAgent/transports/LoopbackConnection.hpp"

#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <string_view>
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

Error errorFromErrno(int err) {
    return errorFromNetwork(err, true, std::system_category().message(err));
}

bool wouldBlock(int err) { return err == EAGAIN || err == EWOULDBLOCK; }

}  // namespace

LoopbackConnection::LoopbackConnection(boost::asio::io_context& queue, FileDescriptor descriptor,
                                       IpEndpoint peer) noexcept
    : queue_(queue),
      descriptor_(std::move(descriptor)),
      peer_(peer),
      acceptedAt_(std::chrono::steady_clock::now()) {}

bool LoopbackConnection::joinEventLoop(std::optional<Error>& error) {
    if (socket_) return true;
    boost::system::error_code code;
    boost::asio::ip::tcp::socket socket(queue_);
    // The protocol follows the listener, which is IPv4 loopback only.
    socket.assign(boost::asio::ip::tcp::v4(), descriptor_.get(), code);
    if (code) {
        error = errorFrom(code);
        return false;
    }
    (void)descriptor_.release();  // the socket owns it now
    socket_.emplace(std::move(socket));
    return true;
}

bool LoopbackConnection::receive(std::size_t maximumLength, ReceiveCompletion completion) {
    if (released_) return false;
    const std::size_t length = std::clamp<std::size_t>(maximumLength, 1, receiveChunkSize);
    auto buffer = std::make_shared<std::string>(length, '\0');
    if (!socket_) {
        if (!descriptor_) {
            completion(std::string(), false, errorFromErrno(EBADF));
            return false;
        }
        ssize_t received = -1;
        do {
            received = ::recv(descriptor_.get(), buffer->data(), buffer->size(), 0);
        } while (received < 0 && errno == EINTR);
        if (received > 0) {
            buffer->resize(static_cast<std::size_t>(received));
            completion(std::move(*buffer), false, std::nullopt);
            return false;
        }
        if (received == 0) {
            completion(std::string(), true, std::nullopt);
            return false;
        }
        if (!wouldBlock(errno)) {
            completion(std::string(), false, errorFromErrno(errno));
            return false;
        }
        std::optional<Error> failed;
        if (!joinEventLoop(failed)) {
            completion(std::string(), false, std::move(failed));
            return false;
        }
    }
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
    return true;
}

void LoopbackConnection::sendFinal(std::string bytes, SendCompletion completion) {
    if (released_) return;
    std::size_t sent = 0;
    if (!socket_) {
        if (!descriptor_) {
            completion(errorFromErrno(EBADF));
            return;
        }
        while (sent < bytes.size()) {
            const ssize_t written = ::send(descriptor_.get(), bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
            if (written < 0) {
                if (errno == EINTR) continue;
                if (wouldBlock(errno)) break;
                completion(errorFromErrno(errno));
                return;
            }
            sent += static_cast<std::size_t>(written);
        }
        if (sent == bytes.size()) {
            completion(std::nullopt);
            return;
        }
        std::optional<Error> failed;
        if (!joinEventLoop(failed)) {
            completion(std::move(failed));
            return;
        }
    }
    bytes.erase(0, sent);
    auto rest = std::make_shared<std::string>(std::move(bytes));
    boost::asio::async_write(*socket_, boost::asio::buffer(*rest),
                             [self = shared_from_this(), rest, completion = std::move(completion)](
                                 const boost::system::error_code& code, std::size_t) {
                                 completion(code ? std::optional(errorFrom(code)) : std::nullopt);
                             });
}

void LoopbackConnection::close() noexcept {
    descriptor_.reset();
    if (!socket_ || !socket_->is_open()) return;
    boost::system::error_code ignored;
    socket_->close(ignored);
}

void LoopbackConnection::release() noexcept {
    close();
    socket_.reset();
    released_ = true;
}

}  // namespace quillfort
