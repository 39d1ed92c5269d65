// The agent process from its first line to its exit status, shared by both
// executables: the headless `quillfort-agent` and the windowed one, which
// differ only in the front end they bring. Builds the agent in one fixed
// order, gives way to an agent that already runs, then serves the file
// bridge and the loopback listener until SIGINT or SIGTERM.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "QuillfortAgent/app/AgentFrontEnd.hpp"
#include "contracts/QuillfortPromptEndpointStore.hpp"
#include "platform/ProcessInfo.hpp"

namespace quillfort::QuillfortAgentApp {

struct Options {
    bool headless = false;
    std::uint16_t loopbackPort = QuillfortPromptEndpointStore::defaultLoopbackPort;
    std::string trustedGroup;  // empty: only root and the agent's own user submit over loopback
};

// Called once, before anything of the agent exists: the front end to run
// with, or none to run headless. It may replace the process (exec) instead
// of returning.
using FrontEndChooser = std::function<std::unique_ptr<AgentFrontEnd>(int& argc, char** argv,
                                                                     const ProcessInfo& processInfo,
                                                                     const Options& options)>;

// The whole life of the process; returns its exit status.
[[nodiscard]] int main(int argc, char** argv, const FrontEndChooser& chooseFrontEnd);

}  // namespace quillfort::QuillfortAgentApp
