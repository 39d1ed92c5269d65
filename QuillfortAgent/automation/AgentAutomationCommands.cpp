#include "QuillfortAgent/automation/AgentAutomationCommands.hpp"

#include <algorithm>
#include <utility>

#include "QuillfortAgent/coordinator/AgentPromptDecisionPreset.hpp"

namespace quillfort {

AgentAutomationCommands::AgentAutomationCommands(std::shared_ptr<FileSystem> fileSystem,
                                                 std::optional<std::filesystem::path> location,
                                                 std::shared_ptr<AgentPromptCoordinator> coordinator,
                                                 std::shared_ptr<MainThreadExecutor> mainThread)
    : fileSystem_(std::move(fileSystem)),
      store_(*fileSystem_, std::move(location)),
      coordinator_(std::move(coordinator)),
      mainThread_(std::move(mainThread)) {}

VoidResult AgentAutomationCommands::clear() { return store_.clear(); }

void AgentAutomationCommands::processPending() {
    auto loaded = store_.loadIfPresent();
    if (!loaded || !*loaded) return;
    const auto command = **loaded;
    // Cleared before acting, so a command is applied at most once.
    (void)store_.clear();
    mainThread_->post([weak = weak_from_this(), command] {
        if (auto self = weak.lock()) self->apply(command);
    });
}

void AgentAutomationCommands::apply(const PromptAgentAutomationCommand& command) {
    const auto& sessions = coordinator_->activePrompts().value();
    const bool active = std::any_of(sessions.begin(), sessions.end(), [&](const AgentPromptSession& session) {
        return session.request.id == command.promptID;
    });
    if (!active) {
        logger_.log("Ignoring prompt automation command for %{public}s because the prompt is no longer active.",
                    command.promptID.uppercaseString());
        return;
    }
    logger_.log("Applying prompt automation command for %{public}s using preset %{public}s.",
                command.promptID.uppercaseString(), command.preset);
    coordinator_->resolvePrompt(command.promptID, AgentPromptDecisionPresets::fromAutomationPreset(command.preset));
}

}  // namespace quillfort
