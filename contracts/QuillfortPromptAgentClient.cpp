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
#include <span>
#include <thread>
#include <unordered_map>
#include <utility>

#include <boost/asio/buffer.hpp>
#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/write.hpp>
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

using GivenUpFlag = std::shared_ptr<const std::atomic<bool>>;

// Completions are called at most once, and an exception thrown by the caller's
// completion must not take the client's thread (and with it the process) down:
// it has nobody to be reported to, so it is dropped.
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

ClientResult failure(ClientError error) { return std::unexpected(std::move(error)); }

ClientResult transportFailure(std::string message) {
    return failure(ClientError::transportFailure(std::move(message)));
}

ClientResult fixedTransportFailure(std::string_view message) { return transportFailure(std::string(message)); }

// Socket errors read as the blocking calls' errno texts would; anything Asio
// reports outside the system's numbers keeps Asio's own text.
ClientResult socketFailure(std::string_view prefix, const boost::system::error_code& error) {
    if (error.category() == boost::system::system_category())
        return transportFailure(QuillfortPromptAgentClient::posixSocketErrorDescription(prefix, error.value()));
    return transportFailure(fmt::format("{}: {}", prefix, error.message()));
}

ClientResult resultFromEnvelope(const QuillfortPromptBridgeResponseEnvelope& envelope) {
    if (envelope.errorMessage) return failure(ClientError::remoteFailure(*envelope.errorMessage));
    if (!envelope.response) return failure(ClientError::missingResponse());
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

bool hasGivenUp(const GivenUpFlag& givenUp) { return givenUp && givenUp->load(); }

}  // namespace

namespace detail {

// --- Runtime --------------------------------------------------------------------

// One submission in flight. It lives as long as one of its operations is
// pending on the client's context; the core keeps only a weak reference, to end
// it when the client goes away.
class PromptAgentClientExchange : public std::enable_shared_from_this<PromptAgentClientExchange> {
public:
    PromptAgentClientExchange() = default;
    PromptAgentClientExchange(const PromptAgentClientExchange&) = delete;
    PromptAgentClientExchange& operator=(const PromptAgentClientExchange&) = delete;
    virtual ~PromptAgentClientExchange() = default;

    virtual void start() = 0;
    // The client is going away: end now, with `clientStopped`.
    virtual void stop() = 0;
};

// The context, its single thread and the exchanges in flight. Everything but
// `launch` runs on that thread, so the bookkeeping needs no lock.
class PromptAgentClientCore : public std::enable_shared_from_this<PromptAgentClientCore> {
public:
    PromptAgentClientCore() : work_(boost::asio::make_work_guard(context_)) {}

    boost::asio::io_context& context() noexcept { return context_; }

    // From any thread. Starts the thread on first use, which may throw; the
    // caller reports that as its submission's failure.
    void launch(std::shared_ptr<PromptAgentClientExchange> exchange) {
        startThread();
        boost::asio::post(context_, [this, exchange = std::move(exchange)] {
            if (stopping_) return exchange->stop();
            live_.emplace(exchange.get(), exchange);
            exchange->start();
        });
    }

    void finished(const PromptAgentClientExchange* exchange) { live_.erase(exchange); }

    // Ends every exchange still in flight and lets the thread run out. Called
    // once, by the last copy of the client; when that copy dies inside one of
    // our own completions the thread cannot join itself, so it is let go and
    // keeps this core alive until its context is empty.
    void shutdown() {
        if (!started_.load(std::memory_order_acquire)) return;
        boost::asio::post(context_, [this] {
            stopping_ = true;
            auto live = std::exchange(live_, {});
            for (auto& [key, weak] : live)
                if (auto exchange = weak.lock()) exchange->stop();
        });
        work_.reset();
        if (thread_.get_id() == std::this_thread::get_id())
            thread_.detach();
        else
            thread_.join();
    }

private:
    void startThread() {
        if (started_.load(std::memory_order_acquire)) return;
        std::lock_guard guard(startLock_);
        if (started_.load(std::memory_order_relaxed)) return;
        thread_ = std::thread([self = shared_from_this()] { self->run(); });
        started_.store(true, std::memory_order_release);
    }

    void run() {
        // Every handler catches its own failures; should one slip through, the
        // other submissions must still be served.
        for (;;) {
            try {
                context_.run();
                return;
            } catch (...) {
            }
        }
    }

    boost::asio::io_context context_;
    boost::asio::executor_work_guard<boost::asio::io_context::executor_type> work_;
    std::unordered_map<const PromptAgentClientExchange*, std::weak_ptr<PromptAgentClientExchange>> live_;
    bool stopping_ = false;
    std::mutex startLock_;
    std::atomic<bool> started_{false};
    std::thread thread_;
};

// Shared by the copies of one client: the last one to go stops the core.
class PromptAgentClientRuntime {
public:
    PromptAgentClientRuntime() : core_(std::make_shared<PromptAgentClientCore>()) {}
    ~PromptAgentClientRuntime() { core_->shutdown(); }
    PromptAgentClientRuntime(const PromptAgentClientRuntime&) = delete;
    PromptAgentClientRuntime& operator=(const PromptAgentClientRuntime&) = delete;

    [[nodiscard]] const std::shared_ptr<PromptAgentClientCore>& core() const noexcept { return core_; }

private:
    std::shared_ptr<PromptAgentClientCore> core_;
};

namespace {

using Core = PromptAgentClientCore;
using Exchange = PromptAgentClientExchange;

// What every exchange does alike: report once, leave the core's books, and turn
// a throwing step into a failure instead of an escaped exception.
template <class Derived>
class ExchangeBase : public Exchange {
protected:
    ExchangeBase(std::shared_ptr<Core> core, Completion completion)
        : core_(std::move(core)), completion_(std::move(completion)) {}

    std::shared_ptr<Derived> self() { return std::static_pointer_cast<Derived>(shared_from_this()); }

    template <class Step>
    void guarded(Step step) {
        try {
            step();
        } catch (...) {
            finish(failure(failureFromException(std::current_exception())));
        }
    }

    void finish(ClientResult result) {
        if (finished_) return;
        finished_ = true;
        static_cast<Derived*>(this)->release();
        core_->finished(this);
        auto completion = std::move(completion_);
        completion(std::move(result));
    }

    std::shared_ptr<Core> core_;
    bool finished_ = false;

private:
    Completion completion_;
};

// --- File bridge ----------------------------------------------------------------

// One request on the file bridge: written once, then looked for every poll
// interval on a timer.
class FileBridgeExchange final : public ExchangeBase<FileBridgeExchange> {
public:
    FileBridgeExchange(std::shared_ptr<Core> core, std::shared_ptr<FileSystem> fileSystem,
                       std::filesystem::path requestsDirectory, std::filesystem::path responsesDirectory,
                       const std::string& fileName, std::string payload, std::optional<double> timeout,
                       Completion completion, GivenUpFlag givenUp)
        : ExchangeBase(std::move(core), std::move(completion)),
          fileSystem_(std::move(fileSystem)),
          requestsDirectory_(std::move(requestsDirectory)),
          responsesDirectory_(std::move(responsesDirectory)),
          requestFile_(requestsDirectory_ / fileName),
          responseFile_(responsesDirectory_ / fileName),
          payload_(std::move(payload)),
          timeout_(timeout),
          givenUp_(std::move(givenUp)),
          timer_(core_->context()) {}

    void start() override {
        guarded([this] {
            // A caller that stopped waiting before our turn came: nothing is written.
            if (hasGivenUp(givenUp_)) return finish(fixedTransportFailure(Messages::timedOut));
            written_ = true;
            if (!writeRequest()) return finish(fixedTransportFailure(Messages::bridgeWriteFailed));
            payload_ = {};
            if (timeout_) deadline_ = std::chrono::steady_clock::now() + durationFromSeconds(*timeout_);
            look();
        });
    }

    void stop() override {
        if (finished_) return;
        // Nobody will read the answer: the agent need not ask the user.
        if (written_) removeBothFiles();
        finish(fixedTransportFailure(Messages::clientStopped));
    }

    void release() { timer_.cancel(); }

private:
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

    void removeBothFiles() {
        (void)fileSystem_->removeItem(requestFile_);
        (void)fileSystem_->removeItem(responseFile_);
    }

    void look() {
        // The caller stopped waiting (the agent it asked is gone): the agent
        // that comes next must not find an orphaned request.
        if (hasGivenUp(givenUp_)) {
            removeBothFiles();
            return finish(fixedTransportFailure(Messages::timedOut));
        }
        auto bytes = fileSystem_->readFile(responseFile_);
        if (!bytes || bytes->empty()) {
            if (!deadline_ || std::chrono::steady_clock::now() < *deadline_) return scheduleNextLook();
            removeBothFiles();
            return finish(fixedTransportFailure(Messages::timedOut));
        }
        auto envelope = decodeJson<QuillfortPromptBridgeResponseEnvelope>(*bytes);
        // Both files stay: whoever wrote this answer may want to see it.
        if (!envelope) return finish(failure(ClientError::invalidResponseDecoding()));
        (void)fileSystem_->removeItem(responseFile_);
        finish(resultFromEnvelope(*envelope));
    }

    void scheduleNextLook() {
        timer_.expires_after(durationFromSeconds(QuillfortPromptAgentClient::responsePollInterval));
        timer_.async_wait([self = self()](const boost::system::error_code& error) {
            if (error || self->finished_) return;
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
    GivenUpFlag givenUp_;
    bool written_ = false;
    boost::asio::steady_timer timer_;
    std::optional<std::chrono::steady_clock::time_point> deadline_;
};

// --- Loopback -------------------------------------------------------------------

// One loopback exchange: connect, one frame out, one frame back, each step
// bounded by the submission's limit the way a blocking socket's time-outs
// would bound each call. The socket is closed on every path.
class LoopbackExchange final : public ExchangeBase<LoopbackExchange> {
public:
    LoopbackExchange(std::shared_ptr<Core> core, std::string payload, std::string host, std::uint16_t port,
                     std::optional<double> timeout, Completion completion, GivenUpFlag givenUp)
        : ExchangeBase(std::move(core), std::move(completion)),
          payload_(std::move(payload)),
          host_(std::move(host)),
          port_(port),
          givenUp_(std::move(givenUp)),
          socket_(core_->context()),
          timer_(core_->context()) {
        if (auto limit = QuillfortPromptAgentClient::loopbackSocketTimeout(timeout))
            stepLimit_ = std::chrono::seconds(limit->tv_sec) + std::chrono::microseconds(limit->tv_usec);
    }

    void start() override {
        guarded([this] { connect(); });
    }

    void stop() override { finish(fixedTransportFailure(Messages::clientStopped)); }

    void release() {
        timer_.cancel();
        boost::system::error_code ignored;
        socket_.close(ignored);
    }

private:
    using Handler = void (LoopbackExchange::*)(const boost::system::error_code&, std::size_t);

    // Completion handlers of socket operations: ignored once the exchange has
    // ended (a time limit or the client's end closed the socket under them).
    auto step(Handler handler) {
        return [self = self(), handler](const boost::system::error_code& error, std::size_t count = 0) {
            if (self->finished_) return;
            self->guarded([&] { ((*self).*handler)(error, count); });
        };
    }

    void connect() {
        if (hasGivenUp(givenUp_)) return finish(fixedTransportFailure(Messages::timedOut));
        const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (fd < 0) {
            return finish(
                transportFailure(QuillfortPromptAgentClient::posixSocketErrorDescription(Messages::createSocketPrefix, errno)));
        }
        boost::system::error_code error;
        socket_.assign(boost::asio::ip::tcp::v4(), fd, error);
        if (error) {
            ::close(fd);
            return finish(socketFailure(Messages::createSocketPrefix, error));
        }

        // Dotted IPv4 text only: host names such as "localhost" are not resolved.
        in_addr address{};
        if (host_.find('\0') != std::string::npos || ::inet_pton(AF_INET, host_.c_str(), &address) != 1)
            return finish(failure(ClientError::invalidEndpointData()));
        const boost::asio::ip::tcp::endpoint endpoint(boost::asio::ip::address_v4(ntohl(address.s_addr)), port_);

        armStepLimit(Messages::connectPrefix, ETIMEDOUT);
        socket_.async_connect(endpoint, step(&LoopbackExchange::onConnected));
    }

    void onConnected(const boost::system::error_code& error, std::size_t) {
        if (error) return finish(socketFailure(Messages::connectPrefix, error));
        // The caller stopped waiting while we connected: the agent never sees the prompt.
        if (hasGivenUp(givenUp_)) return finish(fixedTransportFailure(Messages::timedOut));
        auto frame = encodeFrame(payload_);
        if (!frame) return finish(transportFailure(frame.error().description()));
        payload_ = std::move(*frame);
        armStepLimit(Messages::writePrefix, EAGAIN);
        boost::asio::async_write(socket_, boost::asio::buffer(payload_), step(&LoopbackExchange::onSent));
    }

    void onSent(const boost::system::error_code& error, std::size_t) {
        if (error) return finish(socketFailure(Messages::writePrefix, error));
        payload_ = {};
        readSome();
    }

    // The answer's buffer grows with what arrives, so an announced length is
    // never trusted for allocation.
    void readSome() {
        constexpr std::size_t chunkSize = 64 * 1024;
        chunk_.resize(std::min(reader_.bytesWanted(), chunkSize));
        armStepLimit(Messages::readPrefix, EAGAIN);
        socket_.async_read_some(boost::asio::buffer(chunk_), step(&LoopbackExchange::onReceived));
    }

    void onReceived(const boost::system::error_code& error, std::size_t count) {
        reader_.consume(std::span<const char>(chunk_.data(), count));
        if (reader_.complete()) return deliver();
        if (error == boost::asio::error::eof) return finish(fixedTransportFailure(Messages::loopbackClosedEarly));
        if (error) return finish(socketFailure(Messages::readPrefix, error));
        readSome();
    }

    void deliver() {
        auto envelope = decodeJson<QuillfortPromptBridgeResponseEnvelope>(reader_.takePayload());
        if (!envelope) return finish(transportFailure(envelope.error().description()));
        finish(resultFromEnvelope(*envelope));
    }

    // A step that outlives the limit fails as the blocking call would have:
    // with the step's message and the errno a socket time-out gives.
    void armStepLimit(std::string_view prefix, int errorNumber) {
        const auto current = ++stepNumber_;
        if (!stepLimit_) return;
        timer_.expires_after(*stepLimit_);
        timer_.async_wait([self = self(), current, prefix, errorNumber](const boost::system::error_code& error) {
            if (error || self->finished_ || self->stepNumber_ != current) return;
            self->finish(
                transportFailure(QuillfortPromptAgentClient::posixSocketErrorDescription(prefix, errorNumber)));
        });
    }

    std::string payload_;  // the envelope, then its frame until sent
    std::string host_;
    std::uint16_t port_;
    GivenUpFlag givenUp_;
    std::optional<std::chrono::steady_clock::duration> stepLimit_;
    boost::asio::ip::tcp::socket socket_;
    boost::asio::steady_timer timer_;
    std::uint64_t stepNumber_ = 0;
    std::string chunk_;
    FrameReader reader_;
};

// Encodes and launches one loopback exchange; shared by the client and by the
// fallback from a manifest's transport, which runs on the client's thread.
void submitOverLoopback(const std::shared_ptr<PromptAgentClientCore>& core, const Clock& clock,
                        const FlowPromptRequest& request, const std::string& host, std::uint16_t port,
                        std::optional<double> timeout, Completion completion, GivenUpFlag givenUp) {
    auto payload = encodedRequestEnvelope(request, clock);
    if (!payload) return completion(failure(ClientError::invalidRequestEncoding()));
    core->launch(std::make_shared<LoopbackExchange>(core, std::move(*payload), host, port, timeout,
                                                    std::move(completion), std::move(givenUp)));
}

}  // namespace
}  // namespace detail

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
      clock_(clock ? std::move(clock) : systemClock()),
      runtime_(std::make_shared<detail::PromptAgentClientRuntime>()) {}

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
            // Nobody waits for the answer any more: a prompt not yet sent must
            // not reach the user.
            *givenUp = true;
            return std::unexpected(ClientError::transportFailure(std::string(Messages::timedOut)));
        }
        if (box->storage) return std::move(*box->storage);
        return std::unexpected(ClientError::missingResponse());
    } catch (...) {
        return std::unexpected(failureFromException(std::current_exception()));
    }
}

void QuillfortPromptAgentClient::submit(const FlowPromptRequest& request, Completion completion,
                                        std::shared_ptr<const std::atomic<bool>> cancelled) const {
    auto once = onceOnly(std::move(completion));
    try {
        submit(request, std::nullopt, once, std::move(cancelled));
    } catch (...) {
        once(std::unexpected(failureFromException(std::current_exception())));
    }
}

void QuillfortPromptAgentClient::submit(const FlowPromptRequest& request, std::optional<double> timeout,
                                        Completion completion, GivenUp givenUp) const {
    // A manifest that cannot be read counts as none: the loopback may still work.
    std::optional<QuillfortPromptListenerRecord> record;
    if (auto loaded = QuillfortPromptEndpointStore::load(*fileManager_, homeDirectoryURL_)) record = *loaded;

    if (record) {
        if (hasUsableLoopbackEndpoint()) {
            // Runs on the client's thread; it holds the core, never the client,
            // so a waiting submission does not keep the client alive.
            completion = [core = runtime_->core(), clock = clock_, request, host = *preferredLoopbackHost_,
                          port = *preferredLoopbackPort_, timeout, completion, givenUp](ClientResult result) {
                if (!result && shouldFallBackToLoopback(result.error())) {
                    detail::submitOverLoopback(core, *clock, request, host, port, timeout, completion, givenUp);
                    return;
                }
                completion(std::move(result));
            };
        }
        if (record->transport == QuillfortPromptBridgeTransportKind::machServiceXPC)
            submitUsingMachService(request, *record, std::move(completion));
        else
            submitUsingFileBridge(request, *record, timeout, std::move(completion), std::move(givenUp));
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
    const auto& core = runtime_->core();
    core->launch(std::make_shared<detail::FileBridgeExchange>(
        core, fileManager_, std::move(*requestsDirectory), std::move(*responsesDirectory), bridgeFileName(request.id),
        std::move(*payload), timeout, std::move(completion), std::move(givenUp)));
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
    detail::submitOverLoopback(runtime_->core(), *clock_, request, host, port, timeout, std::move(completion),
                               std::move(givenUp));
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

}  // namespace quillfort
