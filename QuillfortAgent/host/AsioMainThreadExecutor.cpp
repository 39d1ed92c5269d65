#include "QuillfortAgent/host/AsioMainThreadExecutor.hpp"

#include <utility>

#include <boost/asio/post.hpp>

namespace quillfort {

void AsioMainThreadExecutor::post(std::function<void()> task) {
    // asio::post never runs the task inline, even when called on the main thread.
    boost::asio::post(context_, std::move(task));
}

}  // namespace quillfort
