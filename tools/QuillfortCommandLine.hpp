// The `quillfort` command-line tool: submit a prompt to the running agent, show
// its status and the shared rules, answer a queued prompt, and switch the
// agent's start at login. `main` only
// builds the environment; everything else is here so tests can run it in-process.
#pragma once

#include <chrono>
#include <cstdint>
#include <expected>
#include <map>
#include <memory>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "contracts/FlowPromptMessages.hpp"
#include "model/Uuid.hpp"
#include "platform/Clock.hpp"
#include "platform/FileSystem.hpp"
#include "tools/LoginItem.hpp"
#include "QuillfortFilter/process/ProcessLineage.hpp"

namespace quillfort::QuillfortCommandLine {

inline constexpr int exitSuccess = 0;
inline constexpr int exitFailure = 1;  // the agent could not be reached, or answered with an error
inline constexpr int exitUsage = 2;    // bad arguments or input files

struct Environment {
    std::shared_ptr<FileSystem> fileSystem;
    std::shared_ptr<const Clock> clock;
    std::shared_ptr<UuidSource> uuids;
    ProcessLineage::ProcfsView procfs;
    // How long `answer` waits for the agent to take its command file (and for an
    // earlier command to be taken before it writes its own).
    std::chrono::milliseconds commandPickupLimit{5000};
    // What `login-item` reads: the process environment (XDG_CONFIG_HOME,
    // XDG_CONFIG_DIRS) and the systemd user manager (null: none runs).
    std::map<std::string, std::string> variables{};
    std::shared_ptr<LoginItem::UserServiceManager> userServices{};
};

// Runs one invocation; `arguments` leaves out the program name.
[[nodiscard]] int run(const std::vector<std::string>& arguments, const Environment& environment, std::ostream& out,
                      std::ostream& err);

// --- Building blocks, public for tests ------------------------------------------

// The flow and process a prompt is about, as given by flags.
struct PromptFlowOptions {
    std::string host;
    std::optional<std::uint16_t> port;
    TransportProtocol protocol = TransportProtocol::tcp;
    std::optional<std::int32_t> pid;  // attribute the flow to this live process and its ancestors
    std::optional<std::string> executablePath;
    std::optional<std::string> signingID;
    std::optional<std::string> bundleID;
    std::optional<std::string> teamID;
    std::vector<ProcessTag> tags;

    bool operator==(const PromptFlowOptions&) const = default;
};

// An outbound flow to host[:port] seen at `now`; the process comes from --pid
// (read from /proc, with the flags overriding what they name) or from --exe.
// The error text explains what is missing or cannot be read.
[[nodiscard]] std::expected<FlowPromptRequest, std::string> buildPromptRequest(
    const PromptFlowOptions& options, const Uuid& id, Date now, const ProcessLineage::ProcfsView& procfs);

// "127.0.0.1:27839": dotted IPv4 text and a port; nothing for anything else.
[[nodiscard]] std::optional<std::pair<std::string, std::uint16_t>> parseLoopbackEndpoint(std::string_view text);

// "allow-once, allow-session, ...": the presets `answer` accepts.
[[nodiscard]] std::string presetList();

}  // namespace quillfort::QuillfortCommandLine
