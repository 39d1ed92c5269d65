// Where the coordinator and everything that calls it run. Transports hop onto
// this executor before they touch the coordinator; the UI build backs it with
// the Qt event loop, the headless agent with an io_context on the main thread.
#pragma once

#include <functional>
#include <memory>

namespace quillfort {

class MainThreadExecutor {
public:
    virtual ~MainThreadExecutor() = default;
    // Runs `task` later on the main thread, in posting order. Never runs it inline.
    virtual void post(std::function<void()> task) = 0;
};

}  // namespace quillfort
