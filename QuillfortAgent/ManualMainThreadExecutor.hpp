// A main-thread executor that runs nothing until asked: tests post from any
// thread and then run the tasks deterministically on their own thread.
#pragma once

#include <cstddef>
#include <deque>
#include <functional>
#include <mutex>
#include <optional>
#include <utility>

#include "QuillfortAgent/MainThreadExecutor.hpp"

namespace quillfort {

class ManualMainThreadExecutor final : public MainThreadExecutor {
public:
    void post(std::function<void()> task) override {
        std::lock_guard lock(mutex_);
        tasks_.push_back(std::move(task));
    }

    // Runs the posted tasks in posting order, including those they post
    // themselves, until none is left; returns how many ran.
    std::size_t runAll() {
        std::size_t ran = 0;
        while (auto task = takeNext()) {
            if (*task) (*task)();
            ++ran;
        }
        return ran;
    }

    [[nodiscard]] std::size_t pendingCount() const {
        std::lock_guard lock(mutex_);
        return tasks_.size();
    }

private:
    std::optional<std::function<void()>> takeNext() {
        std::lock_guard lock(mutex_);
        if (tasks_.empty()) return std::nullopt;
        auto task = std::move(tasks_.front());
        tasks_.pop_front();
        return task;
    }

    mutable std::mutex mutex_;
    std::deque<std::function<void()>> tasks_;
};

}  // namespace quillfort
