// End-to-end tests as another process sees the agent: a temporary user (its own
// HOME) in which the real quillfort-agent and quillfort tool run, driven only
// through the shared files and the loopback socket, as the filter side does.
#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "contracts/FlowPromptAutomation.hpp"
#include "contracts/PromptAgentStatusSnapshot.hpp"
#include "contracts/QuillfortPromptBridgeEnvelopes.hpp"
#include "tests/testsupport/ChildProcess.hpp"
#include "tests/testsupport/TemporaryDirectory.hpp"

namespace quillfort::testing {

using Environment = std::map<std::string, std::string>;

// Generous: two cores may be shared with other test binaries; nothing is
// asserted on time.
inline constexpr std::chrono::seconds processDeadline{20};

// Polls `condition` until it holds; false when the deadline passed first.
inline bool eventually(const std::function<bool()>& condition, std::chrono::seconds limit = processDeadline) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return true;
}

// Sample prompt `n` (identifier sampleUuid(n)) for `host`, and its request envelope.
[[nodiscard]] FlowPromptRequest sampleRequest(std::uint64_t n, const std::string& host = "api.example.com");
[[nodiscard]] QuillfortPromptBridgeRequestEnvelope sampleEnvelope(std::uint64_t n,
                                                                  const std::string& host = "api.example.com");

// Sends `pieces` one after the other on a fresh loopback connection, ends the
// sending side and returns everything received until the agent closed the
// connection; nothing when the connection or a time-out failed.
[[nodiscard]] std::optional<std::string> exchangeFrames(std::uint16_t port, const std::vector<std::string>& pieces);

// A blocking loopback client with receive and send time-outs, so a test that
// goes wrong fails instead of hanging.
class LoopbackTestClient {
public:
    explicit LoopbackTestClient(std::uint16_t port);
    ~LoopbackTestClient();
    LoopbackTestClient(const LoopbackTestClient&) = delete;
    LoopbackTestClient& operator=(const LoopbackTestClient&) = delete;

    [[nodiscard]] bool connected() const noexcept { return connected_; }
    bool send(std::string_view bytes);
    void finishSending();
    // Everything until the agent closes the connection; nothing on a time-out.
    [[nodiscard]] std::optional<std::string> receiveAll();

private:
    int descriptor_ = -1;
    bool connected_ = false;
};

// The 4-byte big-endian length header for `length`.
[[nodiscard]] std::string frameHeader(std::uint32_t length);
// The response envelope inside a whole frame, when it is one.
[[nodiscard]] std::optional<QuillfortPromptBridgeResponseEnvelope> decodeResponseFrame(const std::string& frame);

class AgentSandbox {
public:
    struct ToolRun {
        std::optional<int> status;
        std::string out;
        std::string err;
    };

    AgentSandbox();

    // Why an end-to-end test cannot run here (a console user is signed in, whose
    // home the agent would use whatever HOME says; a program is not built), or nothing.
    [[nodiscard]] static std::optional<std::string> skipReason();

    [[nodiscard]] const std::filesystem::path& home() const { return home_.path(); }
    [[nodiscard]] Environment environment() const;

    // Starts the agent on a free port (headless unless `arguments` say
    // otherwise) and waits until both transports are ready.
    ChildProcess& launchAgent(const Environment& extra = {},
                              const std::vector<std::string>& arguments = {"--headless"});
    // An agent launch in the same home with `extra` variables, not waited for.
    [[nodiscard]] ChildProcess startAgent(const std::vector<std::string>& arguments, const Environment& extra = {});
    [[nodiscard]] std::uint16_t port() const { return port_; }
    [[nodiscard]] std::string agentLog() const { return agent_ ? agent_->standardError() : std::string(); }
    bool waitForAgentLog(const std::string& fragment);

    // The tool with `--home` put after its command word.
    [[nodiscard]] ChildProcess startTool(std::vector<std::string> arguments) const;
    ToolRun runTool(const std::vector<std::string>& arguments) const;

    // --- Shared files --------------------------------------------------------------
    [[nodiscard]] std::filesystem::path container() const;
    [[nodiscard]] std::filesystem::path manifestFile() const { return container() / "QuillfortPromptAgent.endpoint"; }
    [[nodiscard]] std::filesystem::path statusFile() const { return container() / "PromptAgentStatus.json"; }
    [[nodiscard]] std::filesystem::path ruleSnapshotFile() const { return container() / "RuleSnapshot.json"; }
    [[nodiscard]] std::optional<PromptAgentStatusSnapshot> status() const;

private:
    TemporaryDirectory home_;
    std::unique_ptr<ChildProcess> agent_;
    std::uint16_t port_ = 0;
};

}  // namespace quillfort::testing
