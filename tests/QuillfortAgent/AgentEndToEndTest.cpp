// The real quillfort-agent in a temporary home, driven only through its files
// and its loopback socket, for what only a whole process shows: what it maps,
// one instance per user, signals, a kill in the middle of a burst and
// descriptor exhaustion. How requests are read and answered is the service
// host's tests'.
#include <signal.h>
#include <sys/resource.h>

#include <atomic>
#include <filesystem>
#include <iterator>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "contracts/PromptFrame.hpp"
#include "contracts/RuleSnapshotEnvelope.hpp"
#include "model/Json.hpp"
#include "tests/testsupport/AgentSandbox.hpp"
#include "tests/testsupport/ModelSamples.hpp"

namespace quillfort {
namespace {

using namespace quillfort::testing;
using ::testing::HasSubstr;
using ::testing::Not;
namespace fs = std::filesystem;

Environment directive(const std::string& answer) { return {{"QUILLFORT_AGENT_AUTOMATION_RESPONSE", answer}}; }

std::string frameFor(std::uint64_t n, const std::string& host = "api.example.com") {
    return *encodeFrame(encodeCompact(sampleEnvelope(n, host)));
}

class AgentEndToEnd : public ::testing::Test {
protected:
    void SetUp() override {
        if (auto reason = AgentSandbox::skipReason()) GTEST_SKIP() << *reason;
    }
    void TearDown() override {
        if (HasFailure()) std::cerr << "--- agent standard error ---\n" << sandbox_.agentLog() << '\n';
    }

    AgentSandbox sandbox_;
};

// Headless the agent maps no Qt library: asked to, without a display, and
// with an X display that does not answer.
TEST(AgentEndToEndHeadless, MapsNoQtWhateverMadeItHeadless) {
    if (auto reason = AgentSandbox::skipReason()) GTEST_SKIP() << *reason;
    const std::string deadDisplay = ":59321";
    const struct {
        std::vector<std::string> arguments;
        Environment environment;
        std::string said;
    } cases[] = {
        {{"--headless"}, {{"DISPLAY", deadDisplay}}, "Launching Quillfort agent"},
        {{}, {}, "no display found"},
        {{}, {{"DISPLAY", deadDisplay}}, "cannot open the X display " + deadDisplay},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.said);
        AgentSandbox sandbox;
        auto& agent = sandbox.launchAgent(c.environment, c.arguments);
        const auto maps = readText(fs::path("/proc") / std::to_string(agent.pid()) / "maps").value_or("");
        ASSERT_THAT(maps, HasSubstr("/quillfort-agent"));
        EXPECT_THAT(maps, Not(HasSubstr("libQt")));
        EXPECT_THAT(sandbox.agentLog(), HasSubstr(c.said));
    }
}

TEST_F(AgentEndToEnd, ListenerKeepsServingAfterRunningOutOfDescriptors) {
    auto& agent = sandbox_.launchAgent(directive("allow-once"));
    // Leave the agent a few descriptors only, then connect more clients than that.
    const auto fds = fs::path("/proc") / std::to_string(agent.pid()) / "fd";
    const auto open = static_cast<rlim_t>(std::distance(fs::directory_iterator(fds), fs::directory_iterator{}));
    const rlimit tight{.rlim_cur = open + 3, .rlim_max = open + 3};
    ASSERT_EQ(::prlimit(agent.pid(), RLIMIT_NOFILE, &tight, nullptr), 0);
    {
        std::vector<std::unique_ptr<LoopbackTestClient>> idle;
        for (int i = 0; i < 12; ++i) {
            idle.push_back(std::make_unique<LoopbackTestClient>(sandbox_.port()));
            ASSERT_TRUE(idle.back()->connected());
        }
        ASSERT_TRUE(sandbox_.waitForAgentLog("Loopback prompt connection failed: "));
    }

    const auto answer = decodeResponseFrame(exchangeFrames(sandbox_.port(), {frameFor(16)}).value_or(""));
    ASSERT_TRUE(answer);
    EXPECT_EQ(answer->promptID, sampleUuid(16));
    EXPECT_FALSE(agent.waitFor(std::chrono::milliseconds(0)));
}

// A second launch gives way at once and leaves the lock alone. The coordinator
// still holds the reply callbacks (and with them the connections) of prompts
// nobody answered when the agent ends; the files stay for the next launch to replace.
TEST_F(AgentEndToEnd, SecondLaunchGivesWayAndSigtermEndsEveryWaitingConnectionKeepingTheFiles) {
    auto& agent = sandbox_.launchAgent();
    const auto lockFile = sandbox_.container() / "QuillfortPromptBridge" / "QuillfortAgent.lock";
    ASSERT_EQ(readText(lockFile), std::to_string(agent.pid()) + "\n");
    auto second = sandbox_.startAgent({"--headless", "--loopback-port", "0"});
    EXPECT_EQ(second.waitFor(processDeadline), 0);
    EXPECT_EQ(readText(lockFile), std::to_string(agent.pid()) + "\n");
    EXPECT_EQ(sandbox_.status()->statusText, "Prompt bridge ready.");

    // The first agent still serves: every client below is queued.
    std::vector<std::unique_ptr<LoopbackTestClient>> waiting;
    for (std::uint64_t n = 30; n < 35; ++n) {
        waiting.push_back(std::make_unique<LoopbackTestClient>(sandbox_.port()));
        ASSERT_TRUE(waiting.back()->connected());
        ASSERT_TRUE(waiting.back()->send(frameFor(n)));
        ASSERT_TRUE(sandbox_.waitForAgentLog("Queued prompt " + sampleUuid(n).uppercaseString()));
    }
    agent.sendSignal(SIGTERM);
    EXPECT_EQ(agent.waitFor(processDeadline), 0);
    for (auto& client : waiting) EXPECT_EQ(client->receiveAll(), std::optional<std::string>(""));
    EXPECT_TRUE(fs::exists(sandbox_.manifestFile()));
    EXPECT_TRUE(fs::exists(sandbox_.statusFile()));
}

// The snapshot is saved whole, and before the answer leaves: a kill at any
// moment leaves a file that parses and holds the rule of every answer sent.
TEST_F(AgentEndToEnd, SigkillInABurstOfPermanentAnswersLosesNoAnsweredRule) {
    auto& agent = sandbox_.launchAgent(directive("allow-permanent"));
    std::atomic<bool> stop{false};
    std::mutex mutex;
    std::vector<std::string> answeredHosts;
    std::thread burst([&] {
        for (std::uint64_t n = 100; !stop; ++n) {
            const auto host = "burst-" + std::to_string(n) + ".example";
            const auto answer = decodeResponseFrame(exchangeFrames(sandbox_.port(), {frameFor(n, host)}).value_or(""));
            if (!answer || !answer->response) return;  // the agent is gone
            const std::lock_guard lock(mutex);
            answeredHosts.push_back(host);
        }
    });
    const bool enough = eventually([&] {
        const std::lock_guard lock(mutex);
        return answeredHosts.size() >= 20;
    });
    agent.sendSignal(SIGKILL);
    stop = true;
    burst.join();
    ASSERT_TRUE(enough);

    const auto text = readText(sandbox_.ruleSnapshotFile()).value_or("");
    const auto snapshot = decodeJson<RuleSnapshotEnvelope>(text);
    ASSERT_TRUE(snapshot) << text;
    EXPECT_GE(snapshot->rules.size(), answeredHosts.size());
    for (const auto& host : answeredHosts) EXPECT_THAT(text, HasSubstr(host + ":443")) << host;
}

}  // namespace
}  // namespace quillfort
