// The desktop face of the agent: the Qt application, its main-thread
// executor, the decision-window presenter, the tray item and the status
// window. The header keeps Qt out of the executable's main so that the
// headless path never touches it.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "QuillfortAgent/host/MainThreadExecutor.hpp"
#include "platform/ProcessInfo.hpp"
#include "support/QuillfortFeatureFlags.hpp"

namespace quillfort {
class AgentPromptCoordinator;
class AgentRuleBook;
}

namespace quillfort::ui {

// Why this session cannot show windows ("no display found (...)", "cannot open
// the X display :3"), or nothing when it can. A Wayland compositor and an X
// display are each tried once, so that one that does not answer means the
// other, then headless, instead of Qt aborting the agent.
[[nodiscard]] std::optional<std::string> displayProblem(const ProcessInfo& processInfo);

class AgentUi {
public:
    // Creates the application object; `argc` and `argv` must outlive the UI.
    // Native Wayland where a compositor answers and Qt's plugin is installed,
    // else X11; a prompt that cannot come forward there shows as a notification.
    AgentUi(int& argc, char** argv, const ProcessInfo& processInfo, QuillfortFeatureFlags featureFlags);
    ~AgentUi();
    AgentUi(const AgentUi&) = delete;
    AgentUi& operator=(const AgentUi&) = delete;

    [[nodiscard]] std::shared_ptr<MainThreadExecutor> mainThread() const;
    // Start-up step 4: the presenter, watching the coordinator but showing nothing yet.
    void buildPresenter(std::shared_ptr<AgentPromptCoordinator> coordinator);
    // Start-up step 10: the presenter starts, the tray item (or, without a tray, the status window) appears.
    // The status window's rules and network views work on `rules`.
    void start(std::shared_ptr<AgentRuleBook> rules);
    // Brings the status window forward (from the tray, the session bus, `quillfort show`).
    void showStatusWindow();
    // Runs the event loop until SIGINT or SIGTERM; returns the exit status.
    int run();

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace quillfort::ui
