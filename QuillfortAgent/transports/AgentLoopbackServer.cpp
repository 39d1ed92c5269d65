#include "QuillfortAgent/transports/AgentLoopbackServer.hpp"

#include <utility>

#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>

#include "QuillfortAgent/transports/LoopbackPromptError.hpp"
#include "contracts/PromptFrame.hpp"
#include "contracts/QuillfortPromptEndpointStore.hpp"
#include "model/Json.hpp"

namespace quillfort {

namespace {

// One read's part of the bytes held by all unfinished frames together. Its
// bytes go back exactly once: when the read finishes, or when it is dropped
// unfinished (its io_context gone at stop).
class HeldFrameBytes {
public:
    HeldFrameBytes(std::shared_ptr<std::uint64_t> total, std::uint64_t budget)
        : total_(std::move(total)), budget_(budget) {}
    HeldFrameBytes(HeldFrameBytes&& other) noexcept
        : total_(std::move(other.total_)), budget_(other.budget_), counted_(std::exchange(other.counted_, 0)) {}
    HeldFrameBytes& operator=(HeldFrameBytes&&) = delete;
    ~HeldFrameBytes() { giveBack(); }

    // False, counting nothing, when the bytes would take the total past the budget.
    [[nodiscard]] bool take(std::size_t count) {
        if (*total_ + count > budget_) return false;
        *total_ += count;
        counted_ += count;
        return true;
    }

    void giveBack() noexcept {
        if (total_) *total_ -= counted_;
        counted_ = 0;
    }

private:
    std::shared_ptr<std::uint64_t> total_;
    std::uint64_t budget_;
    std::uint64_t counted_ = 0;
};

// One frame being read from a loopback connection, with the time by which it
// must be complete.
struct FrameRead {
    std::shared_ptr<LoopbackConnection> connection;
    FrameReader reader;
    std::function<void(Result<std::string>)> completion;
    boost::asio::io_context& queue;
    std::uint32_t maximumSize;
    std::chrono::steady_clock::time_point deadline;
    // Armed only once a read has to wait: a frame that is already there, as
    // nearly every one is, costs no timer.
    std::optional<boost::asio::steady_timer> deadlineTimer;
    HeldFrameBytes held;
    bool timedOut = false;
    bool finished = false;
};

void finishFrameRead(FrameRead& read, Result<std::string> result) {
    read.finished = true;
    if (read.deadlineTimer) read.deadlineTimer->cancel();
    read.held.giveBack();
    read.completion(std::move(result));
}

// An idle or trickling client must not hold a descriptor for ever. Closing
// the socket ends the pending receive, which then reports the time-out.
void armDeadline(const std::shared_ptr<FrameRead>& read) {
    if (read->deadlineTimer || read->finished) return;
    read->deadlineTimer.emplace(read->queue, read->deadline);
    read->deadlineTimer->async_wait([weak = std::weak_ptr<FrameRead>(read)](const boost::system::error_code& code) {
        auto pending = weak.lock();
        if (code || !pending || pending->finished) return;
        pending->timedOut = true;
        pending->connection->close();
    });
}

// Each round asks for at least 1 and at most the bytes the frame still needs
// (4 for the header at first), so nothing past the frame is read; the next
// round is queued behind whatever else waits on the bridge queue.
void receiveFrameBytes(std::shared_ptr<FrameRead> read) {
    const auto wanted = read->reader.bytesWanted();
    const bool waits = read->connection->receive(wanted, [read](std::string bytes, bool isComplete,
                                                                std::optional<Error> error) {
        if (read->finished) return;
        if (read->timedOut) {
            finishFrameRead(*read,
                            std::unexpected(LoopbackPromptError::make(LoopbackPromptErrorCode::requestTimedOut)));
            return;
        }
        if (error) {
            finishFrameRead(*read, std::unexpected(std::move(*error)));
            return;
        }
        if (!read->held.take(bytes.size())) {
            finishFrameRead(*read,
                            std::unexpected(LoopbackPromptError::make(LoopbackPromptErrorCode::frameBudgetExceeded)));
            return;
        }
        read->reader.consume(bytes);
        if (const auto length = read->reader.announcedLength(); length && *length > read->maximumSize) {
            finishFrameRead(*read, std::unexpected(LoopbackPromptError::make(LoopbackPromptErrorCode::payloadTooLarge)));
            return;
        }
        if (read->reader.complete()) {
            finishFrameRead(*read, read->reader.takePayload());
            return;
        }
        if (isComplete) {
            // Inside the header or inside the payload: either way the frame was cut short.
            finishFrameRead(*read,
                            std::unexpected(LoopbackPromptError::make(LoopbackPromptErrorCode::closedBeforePayload)));
            return;
        }
        boost::asio::post(read->queue, [read] { receiveFrameBytes(read); });
    });
    if (waits) armDeadline(read);
}

bool isLoopbackError(const Error& error, LoopbackPromptErrorCode code) {
    return error.code == std::error_code(static_cast<int>(code), LoopbackPromptError::category());
}

}  // namespace

AgentLoopbackServer::AgentLoopbackServer(boost::asio::io_context& queue, std::shared_ptr<Clock> clock,
                                         std::shared_ptr<UuidSource> uuids, std::uint16_t requestedPort,
                                         Limits limits, std::unique_ptr<LoopbackPeerCheck> peerCheck)
    : queue_(queue),
      clock_(std::move(clock)),
      uuids_(std::move(uuids)),
      requestedPort_(requestedPort),
      limits_(limits),
      peerCheck_(std::move(peerCheck)) {}

void AgentLoopbackServer::start(BridgePromptIntake intake, ReadinessHandler onReadiness) {
    // Clients only ever connect to 127.0.0.1, so nothing beyond this machine
    // needs to reach the port.
    auto listener =
        LoopbackListener::make(queue_, std::string(QuillfortPromptEndpointStore::defaultLoopbackHost), requestedPort_);
    if (!listener) {
        logger_.error("Failed to initialize the loopback prompt listener: %{public}s", listener.error());
        return;
    }
    boost::asio::post(queue_, [weak = weak_from_this(), listener = std::move(*listener), intake = std::move(intake),
                               onReadiness = std::move(onReadiness)]() mutable {
        auto self = weak.lock();
        if (!self) return;
        self->intake_ = std::move(intake);
        self->onReadiness_ = std::move(onReadiness);
        self->listener_ = listener;
        listener->start(
            [weak](LoopbackListener::State state, const std::optional<Error>& error) {
                if (auto server = weak.lock()) server->handleListenerState(state, error);
            },
            [weak](std::shared_ptr<LoopbackConnection> connection) {
                if (auto server = weak.lock()) server->receiveRequest(connection);
            },
            [weak](const Error& error) {
                if (auto server = weak.lock()) {
                    server->logger_.error("Loopback prompt connection failed: %{public}s", error);
                }
            });
    });
}

void AgentLoopbackServer::stop() {
    if (listener_) {
        listener_->cancel();
        listener_.reset();
    }
    // Their clients see the connection end, and sockets held by reply callbacks
    // no longer need the io_context that is about to go.
    for (const auto& weak : connections_) {
        if (auto connection = weak.lock()) connection->release();
    }
    connections_.clear();
    sweptConnectionCount_ = 0;
}

void AgentLoopbackServer::handleListenerState(LoopbackListener::State state, const std::optional<Error>& error) {
    switch (state) {
        case LoopbackListener::State::ready: {
            const auto port = listener_ ? listener_->port() : requestedPort_;
            boundPort_ = port;
            logger_.log("Listening for loopback prompt requests on %{public}s:%{public}hu.",
                        QuillfortPromptEndpointStore::defaultLoopbackHost, port);
            onReadiness_(true);
            return;
        }
        case LoopbackListener::State::failed:
            logger_.error("Failed to start the loopback prompt listener: %{public}s",
                          error ? error->description : std::string());
            onReadiness_(false);
            return;
    }
}

void AgentLoopbackServer::receiveFrame(const std::shared_ptr<LoopbackConnection>& connection,
                                       FrameCompletion completion) {
    auto read = std::make_shared<FrameRead>(FrameRead{
        .connection = connection,
        .reader = {},
        .completion = std::move(completion),
        .queue = queue_,
        .maximumSize = limits_.maximumRequestSize,
        .deadline = connection->acceptedAt() + limits_.requestTimeout,
        .deadlineTimer = std::nullopt,
        .held = HeldFrameBytes(frameBytesHeld_, limits_.frameBytesBudget),
    });
    receiveFrameBytes(std::move(read));
}

void AgentLoopbackServer::receiveRequest(const std::shared_ptr<LoopbackConnection>& connection) {
    // Connections that ended are forgotten now and then, not on every accept:
    // with a thousand prompts waiting, a sweep per accept would cost a thousand looks.
    if (connections_.size() >= 2 * sweptConnectionCount_ + 16) {
        std::erase_if(connections_, [](const auto& weak) { return weak.expired(); });
        sweptConnectionCount_ = connections_.size();
    }
    connections_.push_back(connection);

    // Asked while the peer is surely still connected; what it sends is read
    // either way, so that it is answered rather than cut off.
    const auto verdict = peerCheck_->check(connection->peer(), listener_->localEndpoint());
    receiveFrame(connection, [weak = weak_from_this(), connection, verdict](Result<std::string> frame) {
        auto self = weak.lock();
        if (!self) {
            connection->close();
            return;
        }
        self->handleFrame(connection, verdict, std::move(frame));
    });
}

void AgentLoopbackServer::handleFrame(const std::shared_ptr<LoopbackConnection>& connection,
                                      const LoopbackPeerCheck::Verdict& verdict, Result<std::string> frame) {
    if (!frame && (isLoopbackError(frame.error(), LoopbackPromptErrorCode::payloadTooLarge) ||
                   isLoopbackError(frame.error(), LoopbackPromptErrorCode::frameBudgetExceeded))) {
        // The client is told why, rather than left with a closed connection.
        logger_.error("Failed to receive the loopback prompt request: %{public}s", frame.error());
        sendResponse(
            QuillfortPromptBridgeResponseEnvelope{
                .promptID = uuids_->next(),
                .response = std::nullopt,
                .errorMessage = isLoopbackError(frame.error(), LoopbackPromptErrorCode::payloadTooLarge)
                                    ? oversizeRequestMessage(limits_.maximumRequestSize)
                                    : frameBudgetExceededMessage(limits_.frameBytesBudget),
                .createdAt = now(),
            },
            connection);
        return;
    }
    if (!frame) {
        logger_.error("Failed to receive the loopback prompt request: %{public}s", frame.error());
        connection->close();
        return;
    }
    auto envelope = decodeJson<QuillfortPromptBridgeRequestEnvelope>(*frame);
    if (!verdict.trusted) {
        // Nothing of it reaches the queue; the refusal was logged by the check.
        sendResponse(
            QuillfortPromptBridgeResponseEnvelope{
                .promptID = envelope ? envelope->request.id : uuids_->next(),
                .response = std::nullopt,
                .errorMessage = peerCheck_->refusalMessage(verdict),
                .createdAt = now(),
            },
            connection);
        return;
    }
    if (!envelope) {
        logger_.error("Failed to decode the loopback prompt request: %{public}s", envelope.error().description());
        sendResponse(
            QuillfortPromptBridgeResponseEnvelope{
                .promptID = uuids_->next(),
                .response = std::nullopt,
                .errorMessage = std::string(undecodableRequestMessage),
                .createdAt = now(),
            },
            connection);
        return;
    }

    const auto promptID = envelope->request.id;
    intake_(std::move(envelope->request), frame->size(),
            [weak = weak_from_this(), promptID, connection](std::optional<FlowPromptResponse> response,
                                                            std::optional<std::string> errorMessage) {
                auto self = weak.lock();
                if (!self) return;
                self->sendResponse(
                    QuillfortPromptBridgeResponseEnvelope{
                        .promptID = promptID,
                        .response = std::move(response),
                        .errorMessage = std::move(errorMessage),
                        .createdAt = self->now(),
                    },
                    connection);
            });
}

void AgentLoopbackServer::sendResponse(const QuillfortPromptBridgeResponseEnvelope& envelope,
                                       const std::shared_ptr<LoopbackConnection>& connection) {
    auto frame = encodeFrame(encodeCompact(envelope));
    if (!frame) {
        logger_.error("Failed to encode the loopback prompt response: %{public}s", frame.error().description());
        connection->close();
        return;
    }
    // One close after the answer: the peer reads it, then the end of the stream.
    connection->sendFinal(std::move(*frame), [logger = logger_, connection](std::optional<Error> error) {
        if (error) logger.error("Failed to send the loopback prompt response: %{public}s", *error);
        connection->close();
    });
}

}  // namespace quillfort
