// The main-thread executor of the headless agent: tasks go to an io_context
// that the main thread runs (tests run it on the test thread).
#pragma once

#include <functional>

#include <boost/asio/io_context.hpp>

#include "QuillfortAgent/host/MainThreadExecutor.hpp"

namespace quillfort {

class AsioMainThreadExecutor final : public MainThreadExecutor {
public:
    // `context` must outlive the executor and be run by the main thread only.
    explicit AsioMainThreadExecutor(boost::asio::io_context& context) noexcept : context_(context) {}

    void post(std::function<void()> task) override;

private:
    boost::asio::io_context& context_;
};

}  // namespace quillfort
