// The `quillfort` tool against the real `quillfort-agent`, each in its own
// process with a temporary home, talking only through the shared files and the
// loopback socket.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <memory>
#include <thread>

#include <gtest/gtest.h>

#include "contracts/FlowPromptMessages.hpp"
#include "contracts/PromptAgentStatusStore.hpp"
#include "contracts/QuillfortPromptEndpointStore.hpp"
#include "contracts/QuillfortSharedContainer.hpp"
#include "tests/testsupport/FakeFileSystem.hpp"
#include "tests/testsupport/TemporaryDirectory.hpp"
#include "tests/tools/ChildProcess.hpp"

namespace quillfort {
namespace {

using namespace std::chrono_literals;
using testing::ChildProcess;

// Generous: two cores may be shared with other test binaries.
constexpr auto startLimit = 20s;
constexpr auto commandLimit = 60s;

std::uint16_t freeLoopbackPort() {
    const int probe = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof(address);
    std::uint16_t port = 0;
    if (::bind(probe, reinterpret_cast<sockaddr*>(&address), length) == 0 &&
        ::getsockname(probe, reinterpret_cast<sockaddr*>(&address), &length) == 0)
        port = ntohs(address.sin_port);
    ::close(probe);
    return port;
}

template <class Predicate>
bool eventually(Predicate predicate, std::chrono::seconds limit = startLimit) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!predicate()) {
        if (std::chrono::steady_clock::now() >= deadline) return false;
        std::this_thread::sleep_for(50ms);
    }
    return true;
}

struct ToolRun {
    std::optional<int> status;
    std::string out;
    std::string err;
};

class QuillfortToolEndToEnd : public ::testing::Test {
protected:
    void SetUp() override {
        const char* buildDirectory = std::getenv("QUILLFORT_BUILD_DIR");
        if (buildDirectory == nullptr) GTEST_SKIP() << "QUILLFORT_BUILD_DIR is not set (run through ctest)";
        agentPath_ = std::filesystem::path(buildDirectory) / "QuillfortAgent" / "quillfort-agent";
        toolPath_ = std::filesystem::path(buildDirectory) / "tools" / "quillfort";
        if (!std::filesystem::exists(agentPath_)) GTEST_SKIP() << agentPath_ << " has not been built";
        ASSERT_TRUE(std::filesystem::exists(toolPath_)) << toolPath_;
        std::filesystem::create_directories(outputDirectory());
        fileSystem_ = std::make_shared<testing::FakeFileSystem>(home_.path());
        loopbackPort_ = freeLoopbackPort();
        ASSERT_NE(loopbackPort_, 0);
    }

    void TearDown() override {
        if (agent_ && HasFailure()) {
            std::cerr << "--- agent standard error ---\n" << agent_->standardError() << '\n';
        }
    }

    [[nodiscard]] std::filesystem::path outputDirectory() const { return home_.path() / "output"; }

    [[nodiscard]] std::map<std::string, std::string> environment() const {
        std::map<std::string, std::string> variables{{"HOME", home_.path().string()}};
        if (const char* path = std::getenv("PATH")) variables["PATH"] = path;
        return variables;
    }

    void startAgent(std::map<std::string, std::string> extraEnvironment = {}) {
        auto variables = environment();
        variables.merge(extraEnvironment);
        auto agent = ChildProcess::start(agentPath_, {"--headless", "--loopback-port", std::to_string(loopbackPort_)},
                                         variables, outputDirectory());
        ASSERT_TRUE(agent.has_value()) << agent.error();
        agent_ = std::make_unique<ChildProcess>(std::move(*agent));
        // Ready once both transports are: the manifest and the loopback listener.
        ASSERT_TRUE(eventually([&] {
            auto status = agentStatus();
            return status && status->manifestPublished && status->loopbackListenerReady;
        })) << "the agent did not become ready:\n"
            << agent_->standardError();
    }

    [[nodiscard]] std::optional<PromptAgentStatusSnapshot> agentStatus() const {
        auto status = PromptAgentStatusStore::inSharedContainer(*fileSystem_, home_.path()).loadIfPresent();
        if (!status || !*status) return std::nullopt;
        return **status;
    }

    [[nodiscard]] std::vector<std::string> withHome(std::vector<std::string> arguments) const {
        arguments.insert(arguments.begin() + 1, {"--home", home_.path().string()});
        return arguments;
    }

    [[nodiscard]] ChildProcess startTool(const std::vector<std::string>& arguments) const {
        auto tool = ChildProcess::start(toolPath_, withHome(arguments), environment(), outputDirectory());
        if (!tool) throw std::runtime_error(tool.error());
        return std::move(*tool);
    }

    ToolRun runTool(const std::vector<std::string>& arguments) const {
        ChildProcess tool = startTool(arguments);
        ToolRun run;
        run.status = tool.waitFor(commandLimit);
        run.out = tool.standardOutput();
        run.err = tool.standardError();
        return run;
    }

    static FlowPromptResponse responseFrom(const ToolRun& run) {
        auto response = decodeJson<FlowPromptResponse>(run.out);
        if (!response) ADD_FAILURE() << "not a response: " << run.out << "\n" << run.err;
        return response.value_or(FlowPromptResponse{});
    }

    testing::TemporaryDirectory home_;
    std::shared_ptr<testing::FakeFileSystem> fileSystem_;
    std::filesystem::path agentPath_;
    std::filesystem::path toolPath_;
    std::uint16_t loopbackPort_ = 0;
    std::unique_ptr<ChildProcess> agent_;
};

TEST_F(QuillfortToolEndToEnd, PromptsOverBridgeAndLoopbackBecomeRules) {
    startAgent({{"QUILLFORT_AGENT_AUTOMATION_RESPONSE", "allow-permanent"}});

    auto overBridge = runTool({"prompt", "--host", "api.example.com", "--port", "443", "--exe", "/usr/bin/curl",
                               "--no-loopback", "--timeout", "30"});
    ASSERT_EQ(overBridge.status, 0) << overBridge.err;
    auto bridged = responseFrom(overBridge);
    EXPECT_EQ(bridged.action, RuleAction::allow);
    EXPECT_EQ(bridged.scope, RuleScope::persistent);

    // Without the manifest only the loopback listener can answer.
    auto manifest = QuillfortPromptEndpointStore::listenerEndpointURL(*fileSystem_, home_.path());
    ASSERT_TRUE(manifest && std::filesystem::remove(*manifest));
    auto noBridge = runTool({"prompt", "--host", "updates.example.org", "--no-loopback", "--timeout", "30"});
    EXPECT_EQ(noBridge.status, 1);
    EXPECT_EQ(noBridge.err, "quillfort: No Quillfort prompt endpoint is currently published.\n");

    auto overLoopback =
        runTool({"prompt", "--host", "updates.example.org", "--port", "8443", "--exe", "/usr/bin/wget", "--loopback",
                 "127.0.0.1:" + std::to_string(loopbackPort_), "--timeout", "30"});
    ASSERT_EQ(overLoopback.status, 0) << overLoopback.err;
    EXPECT_EQ(responseFrom(overLoopback).scope, RuleScope::persistent);

    auto rules = runTool({"rules"});
    ASSERT_EQ(rules.status, 0) << rules.err;
    EXPECT_NE(rules.out.find("allow   persistent  Allow curl -> api.example.com:443"), std::string::npos)
        << rules.out;
    EXPECT_NE(rules.out.find("exec=/usr/bin/curl host=api.example.com port=443 proto=tcp"), std::string::npos)
        << rules.out;
    EXPECT_NE(rules.out.find("exec=/usr/bin/wget host=updates.example.org port=8443"), std::string::npos)
        << rules.out;

    auto status = runTool({"status"});
    ASSERT_EQ(status.status, 0) << status.err;
    EXPECT_NE(status.out.find("Quillfort agent: Prompt bridge ready."), std::string::npos) << status.out;
    EXPECT_EQ(status.out.find("Last prompt resolved:  never"), std::string::npos) << status.out;
    EXPECT_NE(status.out.find("No prompts waiting."), std::string::npos) << status.out;
}

TEST_F(QuillfortToolEndToEnd, ProcessWithArgumentsThatAreNotUtf8CanBePromptedFor) {
    startAgent({{"QUILLFORT_AGENT_AUTOMATION_RESPONSE", "allow-once"}});
    // "; :" keeps the shell from replacing itself with sleep, so its own
    // arguments (with bytes that are not UTF-8) stay in /proc.
    auto subject = ChildProcess::start("/bin/sh", {"-c", "sleep 60; :", "name-\xff\xfe-\xE2\x82"}, environment(),
                                       outputDirectory());
    ASSERT_TRUE(subject.has_value()) << subject.error();

    auto run = runTool({"prompt", "--pid", std::to_string(subject->pid()), "--host", "api.example.com", "--port",
                        "443", "--timeout", "30"});
    ASSERT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(responseFrom(run).action, RuleAction::allow);
}

TEST_F(QuillfortToolEndToEnd, AnswerResolvesAPromptAnotherToolWaitsFor) {
    startAgent();

    ChildProcess waiting = startTool({"prompt", "--host", "queued.example.net", "--port", "22", "--exe",
                                      "/usr/bin/ssh", "--tag", "ssh", "--no-loopback"});
    std::optional<Uuid> queued;
    ASSERT_TRUE(eventually([&] {
        auto status = agentStatus();
        if (status && !status->queuedPrompts.empty()) queued = status->queuedPrompts.front().promptID;
        return queued.has_value();
    })) << waiting.standardError();

    auto shown = runTool({"status"});
    ASSERT_EQ(shown.status, 0) << shown.err;
    EXPECT_NE(shown.out.find("*  " + queued->uppercaseString() + "  queued.example.net:22  ssh"), std::string::npos)
        << shown.out;

    auto answer = runTool({"answer", queued->uppercaseString(), "allow-once"});
    ASSERT_EQ(answer.status, 0) << answer.err;
    EXPECT_EQ(answer.out, "Answered prompt " + queued->uppercaseString() + " with allow-once.\n");

    ASSERT_EQ(waiting.waitFor(commandLimit), 0) << waiting.standardError();
    auto response = decodeJson<FlowPromptResponse>(waiting.standardOutput());
    ASSERT_TRUE(response.has_value()) << waiting.standardOutput();
    EXPECT_EQ(response->promptID, *queued);
    EXPECT_EQ(response->action, RuleAction::allow);
    EXPECT_EQ(response->scope, RuleScope::temporary);

    // A one-time answer makes no rule.
    auto rules = runTool({"rules"});
    EXPECT_EQ(rules.status, 0);
    EXPECT_EQ(rules.out, "No rules yet.\n");
    EXPECT_TRUE(eventually([&] {
        auto status = agentStatus();
        return status && status->queuedPrompts.empty() && status->lastPromptResolvedAt;
    }));
}

}  // namespace
}  // namespace quillfort
