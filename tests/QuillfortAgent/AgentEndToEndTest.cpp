// Starts the real quillfort-agent in a temporary home and drives it only
// through its files and its loopback socket, as the filter side does.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <mutex>
#include <optional>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "contracts/PromptAgentAutomationCommand.hpp"
#include "contracts/PromptAgentStatusSnapshot.hpp"
#include "contracts/PromptFrame.hpp"
#include "contracts/QuillfortPromptBridgeEnvelopes.hpp"
#include "contracts/QuillfortPromptListenerRecord.hpp"
#include "contracts/RuleSnapshotEnvelope.hpp"
#include "model/Json.hpp"
#include "platform/LoginSessions.hpp"
#include "tests/QuillfortAgent/ServiceHostHarness.hpp"
#include "tests/testsupport/ModelSamples.hpp"
#include "tests/testsupport/TemporaryDirectory.hpp"

namespace quillfort {
namespace {

using namespace quillfort::testing;
using ::testing::HasSubstr;
using Clock = std::chrono::steady_clock;

namespace fs = std::filesystem;

// --- Plain file helpers (what any client process would do) ------------------

std::optional<std::string> readText(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) return std::nullopt;
    return std::string(std::istreambuf_iterator<char>(in), {});
}

// Written under a hidden name in the same directory, then renamed into place.
void writeAtomically(const fs::path& path, const std::string& bytes) {
    const auto temporary = path.parent_path() / ("." + path.filename().string() + ".partial");
    std::ofstream(temporary, std::ios::binary | std::ios::trunc) << bytes;
    fs::rename(temporary, path);
}

template <class Condition>
bool eventually(Condition condition) {
    const auto deadline = Clock::now() + waitDeadline;
    while (!condition()) {
        if (Clock::now() >= deadline) return false;
        std::this_thread::sleep_for(20ms);
    }
    return true;
}

std::uint16_t freeLoopbackPort() {
    const int probe = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ::bind(probe, reinterpret_cast<sockaddr*>(&address), sizeof address);
    socklen_t length = sizeof address;
    ::getsockname(probe, reinterpret_cast<sockaddr*>(&address), &length);
    ::close(probe);
    return ntohs(address.sin_port);
}

fs::path agentExecutable() {
    if (const char* build = std::getenv("QUILLFORT_BUILD_DIR"); build && *build) {
        return fs::path(build) / "QuillfortAgent" / "quillfort-agent";
    }
    // Run by hand from the build tree: <build>/tests/QuillfortAgent/agent_tests.
    return fs::read_symlink("/proc/self/exe").parent_path().parent_path().parent_path() / "QuillfortAgent" /
           "quillfort-agent";
}

Environment directive(const std::string& answer) { return {{"QUILLFORT_AGENT_AUTOMATION_RESPONSE", answer}}; }

std::string frameFor(std::uint64_t n) { return *encodeFrame(encodeCompact(sampleEnvelope(n))); }

// --- One agent process -----------------------------------------------------------

class AgentProcess {
public:
    AgentProcess(const fs::path& home, std::uint16_t port, const Environment& extra, const std::string& logName,
                 const std::vector<std::string>& extraArguments = {})
        : logPath_(home / logName) {
        std::vector<std::string> environment = {
            "HOME=" + home.string(),
            "XDG_CONFIG_HOME=" + (home / ".config").string(),
            "TMPDIR=" + home.string(),
            "PATH=/usr/bin:/bin",
        };
        for (const auto& [name, value] : extra) environment.push_back(name + "=" + value);
        std::vector<std::string> arguments = {agentExecutable().string(), "--headless", "--loopback-port",
                                              std::to_string(port)};
        arguments.insert(arguments.end(), extraArguments.begin(), extraArguments.end());

        // Everything the child needs is prepared before fork: only
        // async-signal-safe calls may follow it in a threaded test process.
        std::vector<char*> argv;
        for (auto& argument : arguments) argv.push_back(argument.data());
        argv.push_back(nullptr);
        std::vector<char*> envp;
        for (auto& entry : environment) envp.push_back(entry.data());
        envp.push_back(nullptr);
        const int log = ::open(logPath_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);

        pid_ = ::fork();
        if (pid_ == 0) {
            ::dup2(log, STDOUT_FILENO);
            ::dup2(log, STDERR_FILENO);
            ::execve(argv[0], argv.data(), envp.data());
            ::_exit(127);
        }
        ::close(log);
    }

    ~AgentProcess() {
        if (!exitStatus_ && pid_ > 0) {
            ::kill(pid_, SIGTERM);
            if (!waitForExit()) {
                ::kill(pid_, SIGKILL);
                ::waitpid(pid_, nullptr, 0);
            }
        }
    }

    AgentProcess(const AgentProcess&) = delete;
    AgentProcess& operator=(const AgentProcess&) = delete;

    [[nodiscard]] pid_t pid() const noexcept { return pid_; }

    // The exit status once the process has ended normally; nothing when it is
    // still running at the deadline or was killed by a signal.
    std::optional<int> waitForExit() {
        eventually([&] { return reaped(); });
        return exitStatus_;
    }

    [[nodiscard]] bool running() { return !reaped(); }

    [[nodiscard]] std::string log() const { return readText(logPath_).value_or(""); }

    [[nodiscard]] std::size_t logCount(const std::string& fragment) const {
        const auto text = log();
        std::size_t count = 0;
        for (auto at = text.find(fragment); at != std::string::npos; at = text.find(fragment, at + 1)) ++count;
        return count;
    }

    bool waitForLog(const std::string& fragment) {
        return eventually([&] { return log().find(fragment) != std::string::npos; });
    }

private:
    bool reaped() {
        int status = 0;
        if (!exitStatus_ && ::waitpid(pid_, &status, WNOHANG) == pid_) {
            exitStatus_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        }
        return exitStatus_.has_value();
    }

    fs::path logPath_;
    pid_t pid_ = -1;
    std::optional<int> exitStatus_;
};

// --- A temporary user with a running agent ------------------------------------------

class AgentEndToEnd : public ::testing::Test {
protected:
    void SetUp() override {
        // Where a console user is signed in, the agent keeps its files in that
        // user's home whatever HOME says; never run against a real home.
        if (LoginSessions::activeConsoleUser()) GTEST_SKIP() << "a console user is signed in on this machine";
        ASSERT_TRUE(fs::exists(agentExecutable())) << agentExecutable() << " is not built";
    }

    AgentProcess& launch(Environment environment = {}, const std::vector<std::string>& arguments = {}) {
        port_ = freeLoopbackPort();
        agent_ = std::make_unique<AgentProcess>(home_.path(), port_, environment, "agent.log", arguments);
        EXPECT_TRUE(eventually([&] { return status() && status()->statusText == "Prompt bridge ready."; }))
            << agent_->log();
        const auto manifest = readText(container() / "QuillfortPromptAgent.endpoint");
        EXPECT_TRUE(manifest);
        if (auto record = decodeJson<QuillfortPromptListenerRecord>(manifest.value_or(""))) {
            requests_ = *record->requestsDirectoryURL();
            responses_ = *record->responsesDirectoryURL();
        }
        return *agent_;
    }

    [[nodiscard]] fs::path container() const {
        return home_.path() / "Library" / "Group Containers" / "group.com.vessimo.Quillfort.shared";
    }
    [[nodiscard]] fs::path lockFile() const { return container() / "QuillfortPromptBridge" / "QuillfortAgent.lock"; }

    [[nodiscard]] std::optional<PromptAgentStatusSnapshot> status() const {
        auto decoded = decodeJson<PromptAgentStatusSnapshot>(
            readText(container() / "PromptAgentStatus.json").value_or(""));
        return decoded ? std::optional(*decoded) : std::nullopt;
    }
    [[nodiscard]] fs::path commandFile() const { return requests_.parent_path() / "PromptAgentAutomationCommand.json"; }

    fs::path submit(std::uint64_t n, const std::string& host = "api.example.com") {
        const auto path = requests_ / bridgeFileName(sampleUuid(n));
        writeAtomically(path, encodeCompact(sampleEnvelope(n, host)));
        return path;
    }

    std::optional<QuillfortPromptBridgeResponseEnvelope> awaitResponse(std::uint64_t n) {
        const auto path = responses_ / bridgeFileName(sampleUuid(n));
        if (!eventually([&] { return fs::exists(path); })) return std::nullopt;
        auto decoded = decodeJson<QuillfortPromptBridgeResponseEnvelope>(readText(path).value_or(""));
        return decoded ? std::optional(*decoded) : std::nullopt;
    }

    bool awaitQueued(std::uint64_t n) {
        return agent_->waitForLog("Queued prompt " + sampleUuid(n).uppercaseString());
    }

    void command(std::uint64_t n, FlowPromptAutomationPreset preset) {
        writeAtomically(commandFile(), encodePretty(PromptAgentAutomationCommand{
                            .promptID = sampleUuid(n), .preset = preset, .createdAt = sampleDate()}));
    }

    [[nodiscard]] std::optional<std::string> exchange(const std::vector<std::string>& pieces) const {
        LoopbackTestClient client(port_);
        if (!client.connected()) return std::nullopt;
        for (const auto& piece : pieces) {
            if (!client.send(piece)) return std::nullopt;
        }
        client.finishSending();
        return client.receiveAll();
    }

    TemporaryDirectory home_;
    std::unique_ptr<AgentProcess> agent_;
    std::uint16_t port_ = 0;
    fs::path requests_;
    fs::path responses_;
};

// --- File bridge --------------------------------------------------------------------

TEST_F(AgentEndToEnd, DirectiveAnswersARequestFileAndMergesTheRule) {
    launch(directive("allow-permanent"));
    const auto request = submit(1);

    const auto answer = awaitResponse(1);
    ASSERT_TRUE(answer) << agent_->log();
    EXPECT_EQ(answer->promptID, sampleUuid(1));
    ASSERT_TRUE(answer->response);
    EXPECT_EQ(answer->response->action, RuleAction::allow);
    EXPECT_EQ(answer->response->scope, RuleScope::persistent);
    EXPECT_TRUE(eventually([&] { return !fs::exists(request); }));

    const auto snapshotText = readText(container() / "RuleSnapshot.json");
    ASSERT_TRUE(snapshotText);
    const auto snapshot = decodeJson<RuleSnapshotEnvelope>(*snapshotText);
    ASSERT_TRUE(snapshot);
    ASSERT_EQ(snapshot->rules.size(), 1u);
    EXPECT_EQ(snapshot->rules[0].priority, 10000);
    EXPECT_EQ(snapshot->rules[0].origin, RuleOrigin::promptResolved);
    // Indented with sorted keys: exactly the stores' canonical form.
    EXPECT_EQ(*snapshotText, encodePretty(*snapshot));
    EXPECT_LT(snapshotText->find("\"generatedAt\""), snapshotText->find("\"rules\""));

    ASSERT_TRUE(eventually([&] { return status() && status()->lastPromptResolvedAt; }));
    const auto published = *status();
    ASSERT_TRUE(published.lastPromptReceivedAt);
    EXPECT_LE(*published.lastPromptReceivedAt, *published.lastPromptResolvedAt);
    EXPECT_LE(*published.lastPromptResolvedAt, published.updatedAt);
}

TEST_F(AgentEndToEnd, RequestFilesAreTakenInCreationOrder) {
    launch();
    // Both files appear at once: they are made aside, a moment apart, and the
    // whole directory is then swapped in for the empty requests directory.
    const auto staging = requests_.parent_path() / "staging";
    fs::create_directory(staging);
    const auto first = sampleEnvelope(2, "first.example.com");
    const auto second = sampleEnvelope(1, "second.example.com");  // its name sorts first
    writeAtomically(staging / bridgeFileName(first.request.id), encodeCompact(first));
    std::this_thread::sleep_for(100ms);  // distinct creation times, whatever the clock granularity
    writeAtomically(staging / bridgeFileName(second.request.id), encodeCompact(second));
    fs::permissions(staging, fs::perms::all);
    fs::rename(staging, requests_);

    ASSERT_TRUE(eventually([&] { return status() && status()->queuedPrompts.size() == 2; })) << agent_->log();
    const auto queued = status()->queuedPrompts;
    EXPECT_EQ(queued[0].host, "first.example.com");
    EXPECT_EQ(queued[1].host, "second.example.com");
}

TEST_F(AgentEndToEnd, HiddenFilesAndOtherExtensionsAreLeftAlone) {
    launch(directive("allow-once"));
    const auto hidden = requests_ / ("." + bridgeFileName(sampleUuid(3)));
    const auto text = requests_ / "notes.txt";
    writeAtomically(hidden, encodeCompact(sampleEnvelope(3)));
    writeAtomically(text, encodeCompact(sampleEnvelope(4)));
    submit(5);

    ASSERT_TRUE(awaitResponse(5));
    EXPECT_TRUE(fs::exists(hidden));
    EXPECT_TRUE(fs::exists(text));
    EXPECT_FALSE(fs::exists(responses_ / bridgeFileName(sampleUuid(3))));
    EXPECT_FALSE(fs::exists(responses_ / bridgeFileName(sampleUuid(4))));
}

TEST_F(AgentEndToEnd, UnansweredRequestIsHandedOverOnce) {
    launch();
    const auto waiting = submit(6);
    ASSERT_TRUE(awaitQueued(6));
    for (std::uint64_t n = 7; n <= 9; ++n) {
        submit(n);
        ASSERT_TRUE(awaitQueued(n));
    }
    EXPECT_EQ(agent_->logCount("Queued prompt " + sampleUuid(6).uppercaseString()), 1u);
    EXPECT_TRUE(fs::exists(waiting));
    EXPECT_FALSE(fs::exists(responses_ / bridgeFileName(sampleUuid(6))));
}

TEST_F(AgentEndToEnd, CommandFileAnswersAQueuedPrompt) {
    launch();
    const auto request = submit(10);
    ASSERT_TRUE(awaitQueued(10));
    ASSERT_TRUE(eventually([&] { return status() && status()->activePromptCount == 1; }));
    EXPECT_EQ(status()->activePrompt->promptID, sampleUuid(10));

    command(10, FlowPromptAutomationPreset::allowSession);
    const auto answer = awaitResponse(10);
    ASSERT_TRUE(answer) << agent_->log();
    ASSERT_TRUE(answer->response);
    EXPECT_EQ(answer->response->scope, RuleScope::session);
    EXPECT_TRUE(eventually([&] { return !fs::exists(request); }));
    EXPECT_FALSE(fs::exists(commandFile()));
    // Session answers are shared with the filter too.
    EXPECT_TRUE(eventually([&] { return fs::exists(container() / "RuleSnapshot.json"); }));
    EXPECT_TRUE(eventually([&] { return status() && status()->activePromptCount == 0; }));
}

TEST_F(AgentEndToEnd, CommandForAnUnknownPromptIsRemovedAndIgnored) {
    launch();
    command(11, FlowPromptAutomationPreset::blockOnce);
    EXPECT_TRUE(eventually([&] { return !fs::exists(commandFile()); }));
    EXPECT_TRUE(agent_->waitForLog("Ignoring prompt automation command for " + sampleUuid(11).uppercaseString() +
                                   " because the prompt is no longer active."));
    EXPECT_TRUE(agent_->running());
}

TEST_F(AgentEndToEnd, SnapshotPathBlockedByADirectoryDoesNotStopResponses) {
    fs::create_directories(container() / "RuleSnapshot.json");
    launch(directive("block-permanent"));
    submit(12);

    const auto answer = awaitResponse(12);
    ASSERT_TRUE(answer) << agent_->log();
    EXPECT_EQ(answer->response->action, RuleAction::drop);
    EXPECT_THAT(agent_->log(),
                HasSubstr("Failed to persist the prompt-resolved shared rule snapshot in the agent helper: "));
}

// --- Loopback -----------------------------------------------------------------------

TEST_F(AgentEndToEnd, FrameSentOneByteAtATimeIsAnswered) {
    launch(directive("allow-once"));
    const auto frame = frameFor(13);
    std::vector<std::string> bytes;
    for (char c : frame) bytes.emplace_back(1, c);

    const auto reply = exchange(bytes);
    ASSERT_TRUE(reply);
    const auto answer = decodeResponseFrame(*reply);
    ASSERT_TRUE(answer) << *reply;
    EXPECT_EQ(answer->promptID, sampleUuid(13));
    EXPECT_EQ(answer->response->action, RuleAction::allow);
}

TEST_F(AgentEndToEnd, ZeroLengthFrameGetsTheDecodeErrorEnvelope) {
    launch();
    const auto reply = exchange({frameHeader(0)});
    ASSERT_TRUE(reply);
    const auto answer = decodeResponseFrame(*reply);
    ASSERT_TRUE(answer) << *reply;
    EXPECT_EQ(answer->errorMessage, "Failed to decode the Quillfort prompt request.");
    EXPECT_FALSE(answer->response);
}

TEST_F(AgentEndToEnd, TruncatedFrameIsLeftUnansweredWhileOthersAreServed) {
    launch(directive("allow-once"));
    LoopbackTestClient truncated(port_);
    ASSERT_TRUE(truncated.connected());
    ASSERT_TRUE(truncated.send(frameHeader(10) + "123456"));

    for (std::uint64_t n = 14; n <= 15; ++n) {
        const auto answer = decodeResponseFrame(exchange({frameFor(n)}).value_or(""));
        ASSERT_TRUE(answer);
        EXPECT_EQ(answer->promptID, sampleUuid(n));
    }

    truncated.finishSending();
    EXPECT_EQ(truncated.receiveAll(), std::optional<std::string>(""));
    EXPECT_TRUE(agent_->waitForLog("Failed to receive the loopback prompt request: The loopback prompt connection "
                                   "closed before the full payload arrived."));
}

TEST_F(AgentEndToEnd, ListenerKeepsServingAfterRunningOutOfDescriptors) {
    auto& agent = launch(directive("allow-once"));
    // Leave the agent a few descriptors only, then connect more clients than that.
    const auto fds = fs::path("/proc") / std::to_string(agent.pid()) / "fd";
    const auto open = static_cast<rlim_t>(std::distance(fs::directory_iterator(fds), fs::directory_iterator{}));
    const rlimit tight{.rlim_cur = open + 3, .rlim_max = open + 3};
    ASSERT_EQ(::prlimit(agent.pid(), RLIMIT_NOFILE, &tight, nullptr), 0);
    {
        std::vector<std::unique_ptr<LoopbackTestClient>> idle;
        for (int i = 0; i < 12; ++i) {
            idle.push_back(std::make_unique<LoopbackTestClient>(port_));
            ASSERT_TRUE(idle.back()->connected());
        }
        ASSERT_TRUE(agent.waitForLog("Loopback prompt connection failed: ")) << agent.log();
    }

    const auto answer = decodeResponseFrame(exchange({frameFor(16)}).value_or(""));
    ASSERT_TRUE(answer) << agent.log();
    EXPECT_EQ(answer->promptID, sampleUuid(16));
    EXPECT_TRUE(agent.running());
}

// --- Process ------------------------------------------------------------------------

TEST_F(AgentEndToEnd, SecondLaunchExitsAtOnceAndLeavesTheLockAlone) {
    auto& first = launch();
    const auto lock = readText(lockFile());
    ASSERT_EQ(lock, std::to_string(first.pid()) + "\n");

    AgentProcess second(home_.path(), freeLoopbackPort(), {}, "second.log");
    EXPECT_EQ(second.waitForExit(), 0);
    EXPECT_THAT(second.log(), HasSubstr("Launching Quillfort agent login-item helper. verboseLogging=false"));
    EXPECT_EQ(readText(lockFile()), lock);
    EXPECT_TRUE(first.running());
    EXPECT_EQ(status()->statusText, "Prompt bridge ready.");
}

// The coordinator still holds the reply callbacks (and with them the
// connections) of prompts nobody answered when the agent ends.
TEST_F(AgentEndToEnd, SigtermWithLoopbackPromptsWaitingEndsEveryConnection) {
    auto& agent = launch();
    std::vector<std::unique_ptr<LoopbackTestClient>> waiting;
    for (std::uint64_t n = 30; n < 35; ++n) {
        waiting.push_back(std::make_unique<LoopbackTestClient>(port_));
        ASSERT_TRUE(waiting.back()->connected());
        ASSERT_TRUE(waiting.back()->send(frameFor(n)));
        ASSERT_TRUE(awaitQueued(n)) << agent.log();
    }
    ASSERT_EQ(::kill(agent.pid(), SIGTERM), 0);
    EXPECT_EQ(agent.waitForExit(), 0) << agent.log();
    for (auto& client : waiting) EXPECT_EQ(client->receiveAll(), std::optional<std::string>(""));
}

TEST_F(AgentEndToEnd, PreviewFlagsAreReadAsTheAgentReadsThem) {
    // "=" form for the host; the port flag comes last and so has no value.
    auto& agent = launch({}, {"--automation-preview-prompt", "--automation-preview-host=flag.example",
                              "--automation-preview-port"});
    EXPECT_TRUE(agent.waitForLog(" for flag.example.")) << agent.log();
    ASSERT_TRUE(eventually([&] { return status() && status()->activePrompt; }));
    const auto shown = *status()->activePrompt;
    EXPECT_EQ(shown.host, "flag.example");
    EXPECT_EQ(shown.port, std::optional<std::uint16_t>(443));
}

TEST_F(AgentEndToEnd, BadArgumentEndsTheLaunchAfterItsLaunchLine) {
    AgentProcess agent(home_.path(), freeLoopbackPort(), {}, "bad.log", {"--no-such-option"});
    EXPECT_NE(agent.waitForExit().value_or(0), 0);
    const auto log = agent.log();
    const auto launchLine = log.find("Launching Quillfort agent login-item helper.");
    ASSERT_NE(launchLine, std::string::npos) << log;
    EXPECT_LT(launchLine, log.find("--no-such-option")) << log;
    EXPECT_FALSE(fs::exists(container() / "QuillfortPromptAgent.endpoint"));
}

// The snapshot is saved whole, and before the answer leaves: a kill at any
// moment leaves a file that parses and holds the rule of every answer sent.
TEST_F(AgentEndToEnd, SigkillInABurstOfPermanentAnswersLosesNoAnsweredRule) {
    auto& agent = launch(directive("allow-permanent"));
    std::atomic<bool> stop{false};
    std::mutex mutex;
    std::vector<std::string> answeredHosts;
    std::thread burst([&] {
        for (std::uint64_t n = 100; !stop; ++n) {
            const auto host = "burst-" + std::to_string(n) + ".example";
            const auto answer = decodeResponseFrame(
                exchange({*encodeFrame(encodeCompact(sampleEnvelope(n, host)))}).value_or(""));
            if (!answer || !answer->response) return;  // the agent is gone
            const std::lock_guard lock(mutex);
            answeredHosts.push_back(host);
        }
    });
    const bool enough = eventually([&] {
        const std::lock_guard lock(mutex);
        return answeredHosts.size() >= 20;
    });
    ::kill(agent.pid(), SIGKILL);
    stop = true;
    burst.join();
    ASSERT_TRUE(enough) << agent.log();

    const auto text = readText(container() / "RuleSnapshot.json").value_or("");
    const auto snapshot = decodeJson<RuleSnapshotEnvelope>(text);
    ASSERT_TRUE(snapshot) << text;
    EXPECT_GE(snapshot->rules.size(), answeredHosts.size());
    for (const auto& host : answeredHosts) EXPECT_THAT(text, HasSubstr(host + ":443")) << host;
}

TEST_F(AgentEndToEnd, SigtermEndsTheAgentWithStatusZeroAndKeepsItsFiles) {
    auto& agent = launch();
    ASSERT_EQ(::kill(agent.pid(), SIGTERM), 0);
    EXPECT_EQ(agent.waitForExit(), 0);
    EXPECT_TRUE(fs::exists(container() / "QuillfortPromptAgent.endpoint"));
    EXPECT_TRUE(fs::exists(container() / "PromptAgentStatus.json"));
    EXPECT_TRUE(fs::exists(requests_));
}

}  // namespace
}  // namespace quillfort
