// What the application needs of a face: the desktop UI, when there is one,
// owns the main thread's event loop and shows the queue; headless, the
// application runs its own loop and there is no front end at all. Kept free
// of Qt so that the headless executable never links it.
#pragma once

#include <memory>

#include "QuillfortAgent/host/MainThreadExecutor.hpp"

namespace quillfort {

class AgentPromptCoordinator;
class AgentRuleBook;

class AgentFrontEnd {
public:
    virtual ~AgentFrontEnd() = default;

    // The executor of the front end's event loop, which becomes the agent's main thread.
    [[nodiscard]] virtual std::shared_ptr<MainThreadExecutor> mainThread() const = 0;
    // Start-up step 4: the presenter, watching the coordinator but showing nothing yet.
    virtual void buildPresenter(std::shared_ptr<AgentPromptCoordinator> coordinator) = 0;
    // Start-up step 10: the presenter starts and the front end shows itself;
    // its rules and network views work on `rules`.
    virtual void start(std::shared_ptr<AgentRuleBook> rules) = 0;
    // Brings the status window forward (from the session bus, `quillfort show`).
    virtual void showStatusWindow() = 0;
    // Runs the event loop until SIGINT or SIGTERM; returns the exit status.
    virtual int run() = 0;
};

}  // namespace quillfort
