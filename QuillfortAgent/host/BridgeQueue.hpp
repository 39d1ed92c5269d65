// The service host's serial queue: one io_context run by one dedicated thread,
// so the file bridge, the poll timer and every loopback connection run one
// handler at a time, in posting order.
#pragma once

#include <functional>
#include <memory>
#include <string_view>
#include <thread>

#include <boost/asio/io_context.hpp>

namespace quillfort {

class BridgeQueue {
public:
    static constexpr std::string_view label = "com.vessimo.Quillfort.AgentPromptBridge";

    // Starts the thread at once.
    BridgeQueue();
    // Same as shutdown() with nothing to run last.
    ~BridgeQueue();
    BridgeQueue(const BridgeQueue&) = delete;
    BridgeQueue& operator=(const BridgeQueue&) = delete;

    // Timers and sockets that belong to the queue are made on this context;
    // they may only be touched from tasks running on the queue.
    [[nodiscard]] boost::asio::io_context& context() noexcept;

    // Runs `task` later on the queue, never inline.
    void post(std::function<void()> task);

    [[nodiscard]] bool isCurrent() const noexcept;

    // Runs `lastTask` on the queue after everything posted before it, then stops
    // the queue; handlers still waiting (timers, reads) are dropped. Called on
    // the queue itself, it runs `lastTask` inline and lets the thread wind down
    // on its own after the current handler. Idempotent.
    void shutdown(std::function<void()> lastTask = {});

private:
    struct State;
    std::shared_ptr<State> state_;
};

}  // namespace quillfort
