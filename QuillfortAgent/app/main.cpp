// quillfort-agent: the prompt agent of the user's session. Headless, it is the
// whole agent and never loads a window toolkit. Where the session has a
// display and --headless is not given, it becomes the windowed agent
// (quillfort-agent-window, beside it or in ../libexec/quillfort) before it
// has started anything, so the same command serves desktops and servers.
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>
#include <optional>
#include <system_error>
#include <vector>

#include "QuillfortAgent/app/DisplayProbe.hpp"
#include "QuillfortAgent/app/QuillfortAgentApp.hpp"

namespace {

using namespace quillfort;

constexpr const char* windowedAgentName = "quillfort-agent-window";

// Beside this executable in a build tree; under libexec in an installation,
// whatever the prefix.
std::optional<std::filesystem::path> windowedAgent() {
    std::error_code error;
    const auto self = std::filesystem::read_symlink("/proc/self/exe", error);
    if (error) return std::nullopt;
    const auto directory = self.parent_path();
    for (const auto& candidate : {directory / windowedAgentName,
                                  directory.parent_path() / "libexec" / "quillfort" / windowedAgentName}) {
        if (::access(candidate.c_str(), X_OK) == 0) return candidate;
    }
    return std::nullopt;
}

std::unique_ptr<AgentFrontEnd> becomeWindowedIfPossible(int&, char** argv, const ProcessInfo& processInfo,
                                                        const QuillfortAgentApp::Options& options) {
    if (options.headless) return nullptr;
    if (const auto problem = DisplayProbe::problem(processInfo)) {
        std::fprintf(stderr, "quillfort-agent: %s; running headless.\n", problem->c_str());
        return nullptr;
    }
    const auto window = windowedAgent();
    if (!window) {
        std::fprintf(stderr, "quillfort-agent: this installation has no %s; running headless.\n", windowedAgentName);
        return nullptr;
    }
    // Nothing runs yet (no thread, no lock, no socket), so the windowed agent
    // starts as if it had been launched itself, with the same pid and arguments.
    ::execv(window->c_str(), argv);
    std::fprintf(stderr, "quillfort-agent: cannot start %s: %s; running headless.\n", window->c_str(),
                 std::strerror(errno));
    return nullptr;
}

}  // namespace

int main(int argc, char** argv) { return QuillfortAgentApp::main(argc, argv, becomeWindowedIfPossible); }
