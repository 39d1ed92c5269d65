// Automation commands of the service host: the command file in this session's
// directory is read after every poll of the file bridge, cleared before it is
// acted on, and applied to the coordinator when its prompt is still queued.
#pragma once

#include <filesystem>
#include <memory>
#include <optional>

#include "QuillfortAgent/coordinator/AgentPromptCoordinator.hpp"
#include "QuillfortAgent/host/MainThreadExecutor.hpp"
#include "contracts/PromptAgentAutomationCommandStore.hpp"
#include "platform/FileSystem.hpp"
#include "support/QuillfortLogger.hpp"

namespace quillfort {

// Threads: clear() on whichever thread starts or tears down the host;
// processPending() on the bridge queue; a command is applied on the main
// thread, where the coordinator lives.
class AgentAutomationCommands : public std::enable_shared_from_this<AgentAutomationCommands> {
public:
    // `location` is the command file; none when the session has no directory.
    AgentAutomationCommands(std::shared_ptr<FileSystem> fileSystem, std::optional<std::filesystem::path> location,
                            std::shared_ptr<AgentPromptCoordinator> coordinator,
                            std::shared_ptr<MainThreadExecutor> mainThread);

    // Removes the command file; a missing file is no error.
    VoidResult clear();
    // Takes the waiting command, if any, and applies it once.
    void processPending();

private:
    void apply(const PromptAgentAutomationCommand& command);

    std::shared_ptr<FileSystem> fileSystem_;  // before the store, which refers to it
    PromptAgentAutomationCommandStore store_;
    std::shared_ptr<AgentPromptCoordinator> coordinator_;
    std::shared_ptr<MainThreadExecutor> mainThread_;
    Logger logger_{QuillfortLogCategory::agent};
};

}  // namespace quillfort
