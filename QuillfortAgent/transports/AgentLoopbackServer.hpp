// The loopback transport of the service host: the listener on 127.0.0.1, one
// length-prefixed request frame read from each connection within a deadline,
// handed to the host when the connection's user may submit prompts (else
// answered with a refusal), and the answer framed back before the connection
// ends.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

#include <boost/asio/io_context.hpp>

#include "QuillfortAgent/host/BridgePromptIntake.hpp"
#include "QuillfortAgent/transports/LoopbackConnection.hpp"
#include "QuillfortAgent/transports/LoopbackListener.hpp"
#include "QuillfortAgent/transports/LoopbackPeerCheck.hpp"
#include "contracts/QuillfortPromptBridgeEnvelopes.hpp"
#include "model/Date.hpp"
#include "model/Uuid.hpp"
#include "platform/Clock.hpp"
#include "support/QuillfortLogger.hpp"

namespace quillfort {

// Threads: start() on the main thread; everything it leads to, and stop(), on
// the bridge queue, whose io_context must outlive this object; port() from any
// thread.
class AgentLoopbackServer : public std::enable_shared_from_this<AgentLoopbackServer> {
public:
    struct Limits {
        std::chrono::milliseconds requestTimeout;  // for the whole request frame
        std::uint32_t maximumRequestSize;
        // For the bytes of all frames still being received, across connections.
        std::uint64_t frameBytesBudget;
    };
    // Told once whether the listener is serving (true) or failed to bind (false).
    using ReadinessHandler = std::function<void(bool ready)>;

    AgentLoopbackServer(boost::asio::io_context& queue, std::shared_ptr<Clock> clock,
                        std::shared_ptr<UuidSource> uuids, std::uint16_t requestedPort, Limits limits,
                        std::unique_ptr<LoopbackPeerCheck> peerCheck);

    // Makes the listener here and starts it on the queue; a listener that cannot
    // even be made is logged and never reports readiness.
    void start(BridgePromptIntake intake, ReadinessHandler onReadiness);
    // Stops accepting and ends every connection still open, those whose answer
    // the coordinator still owes included. Idempotent.
    void stop();

    // The bound port once ready, else 0.
    [[nodiscard]] std::uint16_t port() const noexcept { return boundPort_.load(); }

private:
    using FrameCompletion = std::function<void(Result<std::string>)>;

    void handleListenerState(LoopbackListener::State state, const std::optional<Error>& error);
    void receiveRequest(const std::shared_ptr<LoopbackConnection>& connection);
    void receiveFrame(const std::shared_ptr<LoopbackConnection>& connection, FrameCompletion completion);
    void handleFrame(const std::shared_ptr<LoopbackConnection>& connection, const LoopbackPeerCheck::Verdict& verdict,
                     Result<std::string> frame);
    void sendResponse(const QuillfortPromptBridgeResponseEnvelope& envelope,
                      const std::shared_ptr<LoopbackConnection>& connection);
    [[nodiscard]] Date now() const { return dateFrom(clock_->now()); }

    boost::asio::io_context& queue_;
    std::shared_ptr<Clock> clock_;
    std::shared_ptr<UuidSource> uuids_;
    std::uint16_t requestedPort_;
    Limits limits_;
    std::unique_ptr<LoopbackPeerCheck> peerCheck_;  // bridge queue only
    Logger logger_{QuillfortLogCategory::agent};

    BridgePromptIntake intake_;
    ReadinessHandler onReadiness_;
    std::shared_ptr<LoopbackListener> listener_;
    // Every accepted connection that may still be alive, above all those whose
    // reply callback waits in the coordinator: their sockets are released on
    // the queue before its io_context goes, whoever holds them then.
    std::vector<std::weak_ptr<LoopbackConnection>> connections_;
    std::size_t sweptConnectionCount_ = 0;  // how many were left by the last sweep
    std::atomic<std::uint16_t> boundPort_{0};
    // Bytes received into frames not yet complete, on every connection. Shared
    // with each read so that its bytes come back even when the read outlives
    // this server; bridge queue only.
    std::shared_ptr<std::uint64_t> frameBytesHeld_ = std::make_shared<std::uint64_t>(0);
};

}  // namespace quillfort
