// The agent on the user's session bus: lists the queued prompts with every
// text the decision window shows, lets a caller change a prompt's choice and
// answer or cancel it, and signals each change of the queue. The bus runs on
// its own thread; every coordinator call hops to the main thread and the reply
// goes back to the bus thread, so a slow caller never holds up the queue and
// the main thread never touches the bus connection.
#pragma once

#include <memory>

#include <functional>

#include "QuillfortAgent/coordinator/AgentPromptCoordinator.hpp"
#include "QuillfortAgent/host/AgentRuleBook.hpp"
#include "QuillfortAgent/host/MainThreadExecutor.hpp"

namespace quillfort {

class AgentSessionBusService {
public:
    // On the main thread: connects to the session bus, claims the agent's name
    // and starts serving. Nothing (and one log line saying the interface is
    // off) when there is no session bus or the name is taken.
    // What the agent offers besides its queue: the rules (none: the rule
    // methods fail) and a way to bring its status window forward (none: the
    // agent runs headless and ShowStatusWindow says so). Main thread.
    struct Extras {
        std::shared_ptr<AgentRuleBook> rules;
        std::function<void()> showStatusWindow;
    };
    [[nodiscard]] static std::unique_ptr<AgentSessionBusService> start(
        std::shared_ptr<AgentPromptCoordinator> coordinator, std::shared_ptr<MainThreadExecutor> mainThread,
        Extras extras = {});

    // On the main thread: stops the bus thread and leaves the bus. Calls still
    // waiting for the main thread are dropped; their callers see the bus's
    // own error when the connection closes.
    ~AgentSessionBusService();
    AgentSessionBusService(const AgentSessionBusService&) = delete;
    AgentSessionBusService& operator=(const AgentSessionBusService&) = delete;

    struct Core;  // what the bus thread and the main-thread tasks share

private:
    explicit AgentSessionBusService(std::shared_ptr<Core> core);
    std::shared_ptr<Core> core_;
};

}  // namespace quillfort
