// The filter's namespace tests: each test runs in a network namespace of its
// own (made when the test process starts), with the real quillfort-filter,
// the real agent in a temporary home, and real client and server processes
// talking over that namespace's loopback or its own virtual links. Nothing
// reaches the machine's own interfaces.
#pragma once

#include <chrono>
#include <csignal>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "contracts/FlowFilterEvent.hpp"
#include "contracts/QuillfortFilterStatus.hpp"
#include "model/Rule.hpp"
#include "tests/testsupport/AgentSandbox.hpp"

namespace quillfort::testing {

// Moves this test process into a new network namespace with loopback up.
// Called once, before any test; afterwards skipReason() says why a machine
// could not do it (no right to make namespaces, no nftables, not built).
void enterNetworkNamespace();
[[nodiscard]] const std::optional<std::string>& namespaceSkipReason();

// Runs a command line through the shell; its output, and status in `status`.
std::string shell(const std::string& command, int* status = nullptr);

class FilterSandbox {
public:
    FilterSandbox();
    ~FilterSandbox();

    [[nodiscard]] AgentSandbox& agentSandbox() { return agent_; }
    [[nodiscard]] const std::filesystem::path& home() const { return agent_.home(); }
    [[nodiscard]] std::filesystem::path container() const { return agent_.container(); }

    // Starts the agent and points the filter at its loopback port.
    void launchAgent();
    // Starts quillfort-filter for this home (loopback included) and waits
    // until it filters; `arguments` come after the sandbox's own.
    void startFilter(const std::vector<std::string>& arguments = {});
    // Signals the filter and waits for its exit status.
    std::optional<int> stopFilter(int signal = SIGTERM);
    void pauseFilter(bool paused);
    [[nodiscard]] pid_t filterPid() const { return filter_ ? filter_->pid() : -1; }
    [[nodiscard]] std::string filterLog() const;
    bool waitForFilterLog(const std::string& fragment, std::chrono::seconds limit = processDeadline);

    void writeConfiguration(const std::string& json);
    void writeRules(const std::vector<Rule>& rules);
    [[nodiscard]] std::optional<QuillfortFilterStatus> status() const;
    // Waits until the filter's status says `predicate`.
    bool waitForStatus(const std::function<bool(const QuillfortFilterStatus&)>& predicate);

    [[nodiscard]] std::vector<FlowFilterEvent> events() const;
    // Waits for an event the predicate accepts and returns it.
    std::optional<FlowFilterEvent> waitForEvent(const std::function<bool(const FlowFilterEvent&)>& predicate,
                                                std::chrono::seconds limit = processDeadline);

    // netpeer.py with `arguments`, started and not waited for.
    [[nodiscard]] ChildProcess startPeer(const std::vector<std::string>& arguments,
                                         const std::filesystem::path& interpreter = "python3") const;
    struct PeerRun {
        std::optional<int> status;
        std::string out;
    };
    PeerRun runPeer(const std::vector<std::string>& arguments, std::chrono::seconds limit = processDeadline) const;

    // The prompts the agent holds; answers the first of them.
    [[nodiscard]] int promptsWaiting() const;
    bool answerFirstPrompt(const std::string& preset);

    // The Python interpreter's real path: what rules name for the peers.
    [[nodiscard]] static std::string python();

private:
    AgentSandbox agent_;
    // The filter's own files (status, copy of the rules) stay root's, outside the home.
    TemporaryDirectory filterFiles_;
    std::optional<ChildProcess> filter_;
    std::uint16_t agentPort_ = 1;  // no agent unless launched
};

// A rule of `action` for flows of `executable` (empty: any) with `destination`.
[[nodiscard]] Rule testRule(std::string name, RuleAction action, const std::string& executable,
                            std::vector<RuleDestination> destination);

}  // namespace quillfort::testing
