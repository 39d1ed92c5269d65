// The main-thread executor of the desktop agent: tasks become queued calls in
// the Qt event loop, which is the agent's main thread while the window runs.
#pragma once

#include <functional>
#include <memory>

#include "QuillfortAgent/host/MainThreadExecutor.hpp"

class QObject;

namespace quillfort::ui {

class QtMainThreadExecutor final : public MainThreadExecutor {
public:
    // Construct on the thread that runs the Qt event loop, after the application object exists.
    QtMainThreadExecutor();
    ~QtMainThreadExecutor() override;

    // Safe from any thread; the task runs on the loop's thread, in posting order.
    void post(std::function<void()> task) override;

private:
    std::unique_ptr<QObject> context_;
};

}  // namespace quillfort::ui
