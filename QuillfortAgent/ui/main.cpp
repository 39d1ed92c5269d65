// quillfort-agent-window: the agent with its desktop face (tray item, status
// window, decision window, notifications). `quillfort-agent` becomes this
// program when a display answers, so that a headless agent never maps Qt.
// Here Qt's own platforms are asked too (a Wayland compositor without Qt's
// Wayland plugin and no X display means headless, with Qt mapped); started
// by hand without a display, it runs headless itself.
#include <cstdio>
#include <memory>

#include "QuillfortAgent/app/QuillfortAgentApp.hpp"
#include "QuillfortAgent/ui/AgentUi.hpp"
#include "support/QuillfortFeatureFlags.hpp"

namespace {

using namespace quillfort;

std::unique_ptr<AgentFrontEnd> makeDesktopFrontEnd(int& argc, char** argv, const ProcessInfo& processInfo,
                                                   const QuillfortAgentApp::Options& options) {
    if (options.headless) return nullptr;
    if (const auto problem = ui::displayProblem(processInfo)) {
        std::fprintf(stderr, "quillfort-agent: %s; running headless.\n", problem->c_str());
        return nullptr;
    }
    return std::make_unique<ui::AgentUi>(argc, argv, processInfo, QuillfortFeatureFlags::resolve(processInfo));
}

}  // namespace

int main(int argc, char** argv) { return QuillfortAgentApp::main(argc, argv, makeDesktopFrontEnd); }
