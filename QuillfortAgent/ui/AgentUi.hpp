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
}

namespace quillfort::ui {

class AgentUi final : public AgentFrontEnd {
public:
    // Creates the application object; `argc` and `argv` must outlive the UI.
    // Where DISPLAY is set the X11 platform is chosen (also under Wayland):
    // only there may a window keep itself above others and come forward.
    AgentUi(int& argc, char** argv, const ProcessInfo& processInfo, QuillfortFeatureFlags featureFlags);
    ~AgentUi() override;
    AgentUi(const AgentUi&) = delete;
    AgentUi& operator=(const AgentUi&) = delete;

    [[nodiscard]] std::shared_ptr<MainThreadExecutor> mainThread() const override;
    void buildPresenter(std::shared_ptr<AgentPromptCoordinator> coordinator) override;
    // The presenter starts, the tray item (or, without a tray, the status window) appears.
    void start() override;
    int run() override;

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace quillfort::ui
