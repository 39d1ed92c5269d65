#include "contracts/QuillfortPromptAgentClient.hpp"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstring>
#include <exception>
#include <mutex>
#include <utility>

#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/thread_pool.hpp>
#include <fmt/format.h>

#include "contracts/PromptFrame.hpp"
#include "contracts/QuillfortPromptBridgeEnvelopes.hpp"
#include "contracts/QuillfortPromptEndpointStore.hpp"

namespace quillfort {

namespace Messages = QuillfortPromptAgentClientMessages;
using ClientError = QuillfortPromptAgentClientError;
using ClientResult = QuillfortPromptAgentClientResult;
using Completion = QuillfortPromptAgentClient::Completion;

// --- Errors -------------------------------------------------------------------

ClientError ClientError::remoteFailure(std::string message) { return {Kind::remoteFailure, std::move(message)}; }
ClientError ClientError::transportFailure(std::string message) { return {Kind::transportFailure, std::move(message)}; }
ClientError ClientError::missingEndpoint() { return {Kind::missingEndpoint, {}}; }
ClientError ClientError::invalidEndpointData() { return {Kind::invalidEndpointData, {}}; }
ClientError ClientError::invalidRequestEncoding() { return {Kind::invalidRequestEncoding, {}}; }
ClientError ClientError::invalidResponseDecoding() { return {Kind::invalidResponseDecoding, {}}; }
ClientError ClientError::missingResponse() { return {Kind::missingResponse, {}}; }

std::string ClientError::description() const {
    switch (kind) {
        case Kind::remoteFailure:
        case Kind::transportFailure:
            return message;
        case Kind::missingEndpoint:
            return "No Quillfort prompt endpoint is currently published.";
        case Kind::invalidEndpointData:
            return "The published Quillfort prompt endpoint is invalid.";
        case Kind::invalidRequestEncoding:
            return "Failed to encode the Quillfort prompt request.";
        case Kind::invalidResponseDecoding:
            return "Failed to decode the Quillfort prompt response.";
        case Kind::missingResponse:
            return "The Quillfort prompt agent did not return a response.";
    }
    return message;
}

std::ostream& operator<<(std::ostream& out, const QuillfortPromptAgentClientError& error) {
    static constexpr std::string_view names[] = {
        "remoteFailure",          "transportFailure",        "missingEndpoint", "invalidEndpointData",
        "invalidRequestEncoding", "invalidResponseDecoding", "missingResponse",
    };
    return out << names[static_cast<std::size_t>(error.kind)] << "(\"" << error.description() << "\")";
}

namespace {

// --- Worker pool ----------------------------------------------------------------

// A few threads shared by every client in the process, started on first use.
// Deliberately never destroyed: a bridge submission without a time limit may
// still be waiting when the process exits, and joining it would hang the exit.
boost::asio::thread_pool& workerPool() {
    static auto* pool = new boost::asio::thread_pool(4);
    return *pool;
}

// Completions are called at most once, and an exception thrown by the caller's
// completion must not take a worker thread (and with it the process) down: it
// has nobody to be reported to, so it is dropped.
Completion onceOnly(Completion completion) {
    struct State {
        std::atomic<bool> called{false};
        Completion completion;
    };
    auto state = std::make_shared<State>();
    state->completion = std::move(completion);
    return [state](ClientResult result) {
        if (state->called.exchange(true)) return;
        try {
            if (state->completion) state->completion(std::move(result));
        } catch (...) {
        }
    };
}

ClientError failureFromException(const std::exception_ptr& exception) {
    try {
        std::rethrow_exception(exception);
    } catch (const std::exception& e) {
        return ClientError::transportFailure(e.what());
    } catch (...) {
        return ClientError::transportFailure("Unknown failure in the Quillfort prompt client.");
    }
}

// Limits given in seconds as doubles: NaN and negative values mean "now", and
// absurdly large ones are capped so they cannot overflow a clock's duration.
double sanitizedSeconds(double seconds) {
    constexpr double longest = 100.0 * 365 * 24 * 3600;
    if (!(seconds > 0)) return 0;
    return std::min(seconds, longest);
}

std::chrono::steady_clock::duration durationFromSeconds(double seconds) {
    return std::chrono::duration_cast<std::chrono::steady_clock::duration>(
        std::chrono::duration<double>(sanitizedSeconds(seconds)));
}

ClientResult resultFromEnvelope(const QuillfortPromptBridgeResponseEnvelope& envelope) {
    if (envelope.errorMessage) return std::unexpected(ClientError::remoteFailure(*envelope.errorMessage));
    if (!envelope.response) return std::unexpected(ClientError::missingResponse());
    return *envelope.response;
}

// The envelope's JSON; nothing when encoding throws (it has no other way to fail).
std::optional<std::string> encodedRequestEnvelope(const FlowPromptRequest& request, const Clock& clock) {
    try {
        return encodeCompact(QuillfortPromptBridgeRequestEnvelope{request, dateFrom(clock.now())});
    } catch (...) {
        return std::nullopt;
    }
}

bool shouldFallBackToLoopback(const ClientError& error) {
    return error.kind == ClientError::Kind::transportFailure || error.kind == ClientError::Kind::missingEndpoint ||
           error.kind == ClientError::Kind::invalidEndpointData;
}

// --- File bridge ----------------------------------------------------------------

// One request on the file bridge: written once, then looked for every poll
// interval on a timer, so waiting does not hold a worker thread.
class FileBridgeExchange : public std::enable_shared_from_this<FileBridgeExchange> {
public:
    FileBridgeExchange(std::shared_ptr<FileSystem> fileSystem, std::filesystem::path requestsDirectory,
                       std::filesystem::path responsesDirectory, std::string fileName, std::string payload,
                       std::optional<double> timeout, Completion completion)
        : fileSystem_(std::move(fileSystem)),
          requestsDirectory_(std::move(requestsDirectory)),
          responsesDirectory_(std::move(responsesDirectory)),
          requestFile_(requestsDirectory_ / fileName),
          responseFile_(responsesDirectory_ / fileName),
          payload_(std::move(payload)),
          timeout_(timeout),
          completion_(std::move(completion)),
          timer_(workerPool().get_executor()) {}

    void start() {
        guarded([this] {
            if (!writeRequest()) {
                completion_(std::unexpected(ClientError::transportFailure(std::string(Messages::bridgeWriteFailed))));
                return;
            }
            if (timeout_) deadline_ = std::chrono::steady_clock::now() + durationFromSeconds(*timeout_);
            look();
        });
    }

    // For a caller that gave up before the request was written: nothing is sent.
    void abandon() { completion_(std::unexpected(ClientError::transportFailure(std::string(Messages::timedOut)))); }

private:
    template <class Step>
    void guarded(Step step) {
        try {
            step();
        } catch (...) {
            completion_(std::unexpected(failureFromException(std::current_exception())));
        }
    }

    // Any failure here is reported as one fixed text; a request file that was
    // already written stays for the agent.
    bool writeRequest() {
        FileSystem& fs = *fileSystem_;
        if (!fs.createDirectories(requestsDirectory_)) return false;
        if (!fs.createDirectories(responsesDirectory_)) return false;
        if (!QuillfortPromptEndpointStore::ensureAccessibleDirectory(requestsDirectory_, fs)) return false;
        if (!QuillfortPromptEndpointStore::ensureAccessibleDirectory(responsesDirectory_, fs)) return false;
        // An answer left from an earlier exchange under the same name must not
        // be taken for this one, so it goes before the request appears.
        if (fs.exists(responseFile_) && !fs.removeItem(responseFile_)) return false;
        if (!fs.writeFileAtomically(requestFile_, payload_)) return false;
        // A watching agent may take and remove the request before its mode is
        // widened: the request was delivered, so that is no failure.
        return QuillfortPromptEndpointStore::ensureAccessibleFile(requestFile_, fs).has_value() ||
               !fs.exists(requestFile_);
    }

    void look() {
        auto bytes = fileSystem_->readFile(responseFile_);
        if (!bytes || bytes->empty()) {
            if (!deadline_ || std::chrono::steady_clock::now() < *deadline_) {
                scheduleNextLook();
                return;
            }
            (void)fileSystem_->removeItem(requestFile_);
            (void)fileSystem_->removeItem(responseFile_);
            completion_(std::unexpected(ClientError::transportFailure(std::string(Messages::timedOut))));
            return;
        }
        auto envelope = decodeJson<QuillfortPromptBridgeResponseEnvelope>(*bytes);
        if (!envelope) {
            // Both files stay: whoever wrote this answer may want to see it.
            completion_(std::unexpected(ClientError::invalidResponseDecoding()));
            return;
        }
        (void)fileSystem_->removeItem(responseFile_);
        completion_(resultFromEnvelope(*envelope));
    }

    void scheduleNextLook() {
        timer_.expires_after(durationFromSeconds(QuillfortPromptAgentClient::responsePollInterval));
        timer_.async_wait([self = shared_from_this()](const boost::system::error_code&) {
            self->guarded([&self] { self->look(); });
        });
    }

    std::shared_ptr<FileSystem> fileSystem_;
    std::filesystem::path requestsDirectory_;
    std::filesystem::path responsesDirectory_;
    std::filesystem::path requestFile_;
    std::filesystem::path responseFile_;
    std::string payload_;
    std::optional<double> timeout_;
    Completion completion_;
    boost::asio::steady_timer timer_;
    std::optional<std::chrono::steady_clock::time_point> deadline_;
};

// --- Loopback -------------------------------------------------------------------

class SocketCloser {
public:
    explicit SocketCloser(int socket) : socket_(socket) {}
    ~SocketCloser() { ::close(socket_); }
    SocketCloser(const SocketCloser&) = delete;
    SocketCloser& operator=(const SocketCloser&) = delete;

private:
    int socket_;
};

ClientResult failure(ClientError error) { return std::unexpected(std::move(error)); }

ClientResult transportFailureFromErrno(std::string_view prefix) {
    return failure(ClientError::transportFailure(QuillfortPromptAgentClient::posixSocketErrorDescription(prefix)));
}

// One blocking exchange: connect, one frame out, one frame back. The socket is
// closed on every path.
ClientResult exchangeOverLoopback(const std::string& payload, const std::string& host, std::uint16_t port,
                            std::optional<double> timeout) {
    const int socket = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (socket < 0) return transportFailureFromErrno(Messages::createSocketPrefix);
    SocketCloser closer(socket);

    if (auto limit = QuillfortPromptAgentClient::loopbackSocketTimeout(timeout)) {
        if (::setsockopt(socket, SOL_SOCKET, SO_RCVTIMEO, &*limit, sizeof(*limit)) != 0 ||
            ::setsockopt(socket, SOL_SOCKET, SO_SNDTIMEO, &*limit, sizeof(*limit)) != 0) {
            return transportFailureFromErrno(Messages::configureSocketPrefix);
        }
    }

    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    // Dotted IPv4 text only: host names such as "localhost" are not resolved.
    if (host.find('\0') != std::string::npos || ::inet_pton(AF_INET, host.c_str(), &address.sin_addr) != 1)
        return failure(ClientError::invalidEndpointData());

    if (::connect(socket, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0)
        return transportFailureFromErrno(Messages::connectPrefix);

    auto frame = encodeFrame(payload);
    if (!frame) return failure(ClientError::transportFailure(frame.error().description()));
    std::size_t sent = 0;
    while (sent < frame->size()) {
        // MSG_NOSIGNAL: a peer that went away must give EPIPE, not kill the process.
        const ssize_t count = ::send(socket, frame->data() + sent, frame->size() - sent, MSG_NOSIGNAL);
        if (count <= 0) return transportFailureFromErrno(Messages::writePrefix);
        sent += static_cast<std::size_t>(count);
    }

    FrameReader reader;
    auto header = QuillfortPromptAgentClient::readExactLoopbackBytes(promptFrameHeaderSize, socket);
    if (!header) return failure(std::move(header.error()));
    reader.consume(*header);
    auto body = QuillfortPromptAgentClient::readExactLoopbackBytes(reader.bytesWanted(), socket);
    if (!body) return failure(std::move(body.error()));
    reader.consume(*body);

    auto envelope = decodeJson<QuillfortPromptBridgeResponseEnvelope>(reader.takePayload());
    if (!envelope) return failure(ClientError::transportFailure(envelope.error().description()));
    return resultFromEnvelope(*envelope);
}

}  // namespace

// --- Client ---------------------------------------------------------------------

QuillfortPromptAgentClient::QuillfortPromptAgentClient(std::shared_ptr<FileSystem> fileManager,
                                                       std::optional<std::filesystem::path> homeDirectoryURL,
                                                       std::optional<std::string> preferredLoopbackHost,
                                                       std::optional<std::uint16_t> preferredLoopbackPort,
                                                       std::shared_ptr<const Clock> clock)
    : fileManager_(fileManager ? std::move(fileManager) : defaultFileSystem()),
      homeDirectoryURL_(std::move(homeDirectoryURL)),
      preferredLoopbackHost_(std::move(preferredLoopbackHost)),
      preferredLoopbackPort_(preferredLoopbackPort),
      clock_(clock ? std::move(clock) : systemClock()) {}

bool QuillfortPromptAgentClient::hasUsableLoopbackEndpoint() const noexcept {
    return preferredLoopbackHost_ && !preferredLoopbackHost_->empty() && preferredLoopbackPort_;
}

void QuillfortPromptAgentClient::submit(const FlowPromptRequest& request, Completion completion) const {
    auto once = onceOnly(std::move(completion));
    try {
        submit(request, std::nullopt, once);
    } catch (...) {
        once(std::unexpected(failureFromException(std::current_exception())));
    }
}

QuillfortPromptAgentClientResult QuillfortPromptAgentClient::submitSync(const FlowPromptRequest& request,
                                                                        double timeoutSeconds) const {
    // Shared with the completion, which may run after this call has given up.
    struct PromptAgentSyncResultBox {
        std::mutex lock;
        std::condition_variable signal;
        bool signalled = false;
        std::optional<ClientResult> storage;
    };
    try {
        auto box = std::make_shared<PromptAgentSyncResultBox>();
        auto once = onceOnly([box](ClientResult result) {
            {
                std::lock_guard guard(box->lock);
                box->storage = std::move(result);
                box->signalled = true;
            }
            box->signal.notify_all();
        });
        const auto deadline = std::chrono::steady_clock::now() + durationFromSeconds(timeoutSeconds);
        auto givenUp = std::make_shared<std::atomic<bool>>(false);
        try {
            submit(request, timeoutSeconds, once, givenUp);
        } catch (...) {
            once(std::unexpected(failureFromException(std::current_exception())));
        }
        std::unique_lock guard(box->lock);
        if (!box->signal.wait_until(guard, deadline, [&box] { return box->signalled; })) {
            // Nobody waits for the answer any more: a prompt still queued for a
            // worker must not reach the user.
            *givenUp = true;
            return std::unexpected(ClientError::transportFailure(std::string(Messages::timedOut)));
        }
        if (box->storage) return std::move(*box->storage);
        return std::unexpected(ClientError::missingResponse());
    } catch (...) {
        return std::unexpected(failureFromException(std::current_exception()));
    }
}

void QuillfortPromptAgentClient::submit(const FlowPromptRequest& request, std::optional<double> timeout,
                                        Completion completion, GivenUp givenUp) const {
    // A manifest that cannot be read counts as none: the loopback may still work.
    std::optional<QuillfortPromptListenerRecord> record;
    if (auto loaded = QuillfortPromptEndpointStore::load(*fileManager_, homeDirectoryURL_)) record = *loaded;

    if (record) {
        if (hasUsableLoopbackEndpoint()) {
            completion = [client = *this, request, timeout, completion, givenUp](ClientResult result) {
                if (!result && shouldFallBackToLoopback(result.error())) {
                    client.submitUsingLoopbackTCP(request, *client.preferredLoopbackHost_,
                                                  *client.preferredLoopbackPort_, timeout, completion, givenUp);
                    return;
                }
                completion(std::move(result));
            };
        }
        if (record->transport == QuillfortPromptBridgeTransportKind::machServiceXPC)
            submitUsingMachService(request, *record, std::move(completion));
        else
            submitUsingFileBridge(request, *record, timeout, std::move(completion), givenUp);
        return;
    }
    if (hasUsableLoopbackEndpoint()) {
        submitUsingLoopbackTCP(request, *preferredLoopbackHost_, *preferredLoopbackPort_, timeout,
                               std::move(completion), std::move(givenUp));
        return;
    }
    completion(std::unexpected(ClientError::missingEndpoint()));
}

void QuillfortPromptAgentClient::submitUsingFileBridge(const FlowPromptRequest& request,
                                                       const QuillfortPromptListenerRecord& record,
                                                       std::optional<double> timeout, Completion completion,
                                                       GivenUp givenUp) const {
    auto requestsDirectory = record.requestsDirectoryURL();
    auto responsesDirectory = record.responsesDirectoryURL();
    if (!requestsDirectory || !responsesDirectory) {
        completion(std::unexpected(ClientError::invalidEndpointData()));
        return;
    }
    auto payload = encodedRequestEnvelope(request, *clock_);
    if (!payload) {
        completion(std::unexpected(ClientError::invalidRequestEncoding()));
        return;
    }
    auto exchange = std::make_shared<FileBridgeExchange>(fileManager_, std::move(*requestsDirectory),
                                                         std::move(*responsesDirectory), bridgeFileName(request.id),
                                                         std::move(*payload), timeout, std::move(completion));
    boost::asio::post(workerPool(), [exchange, givenUp = std::move(givenUp)] {
        if (givenUp && *givenUp) return exchange->abandon();
        exchange->start();
    });
}

void QuillfortPromptAgentClient::submitUsingMachService(const FlowPromptRequest& request,
                                                        const QuillfortPromptListenerRecord& record,
                                                        Completion completion) const {
    if (!record.machServiceName || record.machServiceName->empty()) {
        completion(std::unexpected(ClientError::invalidEndpointData()));
        return;
    }
    try {
        (void)encodeCompact(request);
    } catch (...) {
        completion(std::unexpected(ClientError::invalidRequestEncoding()));
        return;
    }
    // There is no Mach service to connect to on Linux: the manifest's service is
    // reported as a transport failure, which lets the loopback fallback run.
    completion(std::unexpected(ClientError::transportFailure(std::string(Messages::machServiceUnavailable))));
}

void QuillfortPromptAgentClient::submitUsingLoopbackTCP(const FlowPromptRequest& request, const std::string& host,
                                                        std::uint16_t port, std::optional<double> timeout,
                                                        Completion completion, GivenUp givenUp) const {
    auto payload = encodedRequestEnvelope(request, *clock_);
    if (!payload) {
        completion(std::unexpected(ClientError::invalidRequestEncoding()));
        return;
    }
    boost::asio::post(workerPool(), [payload = std::move(*payload), host, port, timeout,
                                     completion = std::move(completion), givenUp = std::move(givenUp)] {
        if (givenUp && *givenUp) {
            completion(failure(ClientError::transportFailure(std::string(Messages::timedOut))));
            return;
        }
        ClientResult result = failure(ClientError::missingResponse());
        try {
            result = exchangeOverLoopback(payload, host, port, timeout);
        } catch (...) {
            result = failure(failureFromException(std::current_exception()));
        }
        completion(std::move(result));
    });
}

// --- Building blocks ------------------------------------------------------------

std::optional<timeval> QuillfortPromptAgentClient::loopbackSocketTimeout(
    std::optional<double> timeoutSeconds) noexcept {
    if (!timeoutSeconds || !(*timeoutSeconds > 0)) return std::nullopt;
    const double limit = sanitizedSeconds(*timeoutSeconds);
    const double wholeSeconds = std::trunc(limit);
    timeval value{};
    value.tv_sec = static_cast<time_t>(wholeSeconds);
    value.tv_usec = static_cast<suseconds_t>((limit - wholeSeconds) * 1'000'000);
    return value;
}

std::string QuillfortPromptAgentClient::posixSocketErrorDescription(std::string_view prefix, int errorNumber) {
    if (const char* text = ::strerrordesc_np(errorNumber)) return fmt::format("{}: {}", prefix, text);
    return fmt::format("{}. errno={}", prefix, errorNumber);
}

std::string QuillfortPromptAgentClient::posixSocketErrorDescription(std::string_view prefix) {
    return posixSocketErrorDescription(prefix, errno);
}

std::expected<std::string, QuillfortPromptAgentClientError> QuillfortPromptAgentClient::readExactLoopbackBytes(
    std::size_t byteCount, int socket) {
    constexpr std::size_t chunkSize = 64 * 1024;
    std::string bytes;
    while (bytes.size() < byteCount) {
        const std::size_t held = bytes.size();
        const std::size_t wanted = std::min(byteCount - held, chunkSize);
        bytes.resize(held + wanted);
        const ssize_t received = ::recv(socket, bytes.data() + held, wanted, 0);
        if (received == 0)
            return std::unexpected(ClientError::transportFailure(std::string(Messages::loopbackClosedEarly)));
        if (received < 0)
            return std::unexpected(ClientError::transportFailure(posixSocketErrorDescription(Messages::readPrefix)));
        bytes.resize(held + static_cast<std::size_t>(received));
    }
    return bytes;
}

}  // namespace quillfort
