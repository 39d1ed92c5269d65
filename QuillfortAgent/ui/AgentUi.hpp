// The desktop face of the agent: the Qt application, its main-thread
// executor, the decision-window presenter, the tray item and the status
// window. Only the windowed executable links it.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "QuillfortAgent/app/AgentFrontEnd.hpp"
#include "QuillfortAgent/host/MainThreadExecutor.hpp"
#include "platform/ProcessInfo.hpp"
#include "support/QuillfortFeatureFlags.hpp"

namespace quillfort {
class AgentPromptCoordinator;
class AgentRuleBook;
}

namespace quillfort::ui {

// Why this session cannot show windows ("no display found (...)", "cannot open
// the X display :3", "Qt's Wayland platform (qt6-wayland) is not installed"),
// or nothing when it can: quillfort-agent's own look (DisplayProbe) and
// whether Qt has the platform for the display that answers.
[[nodiscard]] std::optional<std::string> displayProblem(const ProcessInfo& processInfo);

class AgentUi final : public AgentFrontEnd {
public:
    // Creates the application object; `argc` and `argv` must outlive the UI.
    // Native Wayland where a compositor answers and Qt's plugin is installed,
    // else X11; a prompt that cannot come forward there shows as a notification.
    AgentUi(int& argc, char** argv, const ProcessInfo& processInfo, QuillfortFeatureFlags featureFlags);
    ~AgentUi() override;
    AgentUi(const AgentUi&) = delete;
    AgentUi& operator=(const AgentUi&) = delete;

    [[nodiscard]] std::shared_ptr<MainThreadExecutor> mainThread() const override;
    void buildPresenter(std::shared_ptr<AgentPromptCoordinator> coordinator) override;
    // The presenter starts, the tray item (or, without a tray, the status
    // window) appears; the status window's rules and network views work on `rules`.
    void start(std::shared_ptr<AgentRuleBook> rules) override;
    // Brings the status window forward (from the tray, the session bus, `quillfort show`).
    void showStatusWindow() override;
    int run() override;

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace quillfort::ui
