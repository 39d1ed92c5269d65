#include "QuillfortAgent/host/BridgeQueue.hpp"

#include <pthread.h>

#include <future>
#include <optional>
#include <utility>

#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/post.hpp>

namespace quillfort {

struct BridgeQueue::State {
    boost::asio::io_context context{1};
    std::optional<boost::asio::executor_work_guard<boost::asio::io_context::executor_type>> work{
        context.get_executor()};
    std::thread thread;
    bool shutDown = false;  // touched only by the owner of the BridgeQueue
};

BridgeQueue::BridgeQueue() : state_(std::make_shared<State>()) {
    // The thread keeps the state alive: a shutdown from inside the queue cannot
    // join, so the io_context must outlive the BridgeQueue object in that case.
    state_->thread = std::thread([state = state_] {
        // Linux thread names are limited to 15 characters.
        ::pthread_setname_np(::pthread_self(), "qf-prompt-bridg");
        state->context.run();
    });
}

BridgeQueue::~BridgeQueue() { shutdown(); }

boost::asio::io_context& BridgeQueue::context() noexcept { return state_->context; }

void BridgeQueue::post(std::function<void()> task) { boost::asio::post(state_->context, std::move(task)); }

bool BridgeQueue::isCurrent() const noexcept { return state_->context.get_executor().running_in_this_thread(); }

void BridgeQueue::shutdown(std::function<void()> lastTask) {
    if (state_->shutDown) return;
    state_->shutDown = true;
    if (isCurrent()) {
        if (lastTask) lastTask();
        state_->context.stop();
        state_->thread.detach();
        return;
    }
    std::promise<void> done;
    boost::asio::post(state_->context, [&] {
        if (lastTask) lastTask();
        state_->context.stop();
        done.set_value();
    });
    state_->work.reset();
    done.get_future().wait();
    if (state_->thread.joinable()) state_->thread.join();
}

}  // namespace quillfort
