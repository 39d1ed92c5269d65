// The `quillfort` tool against the real `quillfort-agent`, each in its own
// process with a temporary home, talking only through the shared files and the
// loopback socket.
#include <gtest/gtest.h>

#include "contracts/FlowPromptMessages.hpp"
#include "model/Json.hpp"
#include "tests/testsupport/AgentSandbox.hpp"
#include "tools/RunningAgent.hpp"

namespace quillfort {
namespace {

using namespace std::chrono_literals;
using testing::AgentSandbox;
using testing::ChildProcess;
using testing::eventually;

class QuillfortToolEndToEnd : public ::testing::Test {
protected:
    void SetUp() override {
        if (auto reason = AgentSandbox::skipReason()) GTEST_SKIP() << *reason;
    }

    void TearDown() override {
        if (HasFailure()) std::cerr << "--- agent standard error ---\n" << sandbox_.agentLog() << '\n';
    }

    AgentSandbox sandbox_;
};

// Without the manifest only the loopback listener can answer; told not to use
// it, the tool fails with the client's reason.
TEST_F(QuillfortToolEndToEnd, PromptOverLoopbackBecomesARuleAndNoEndpointIsAClearFailure) {
    sandbox_.launchAgent({{"QUILLFORT_AGENT_AUTOMATION_RESPONSE", "allow-permanent"}});
    ASSERT_TRUE(std::filesystem::remove(sandbox_.manifestFile()));
    auto noBridge = sandbox_.runTool({"prompt", "--host", "updates.example.org", "--no-loopback", "--timeout", "30"});
    EXPECT_EQ(noBridge.status, 1);
    EXPECT_EQ(noBridge.err, "quillfort: No Quillfort prompt endpoint is currently published.\n");

    auto overLoopback = sandbox_.runTool({"prompt", "--host", "updates.example.org", "--port", "8443", "--exe",
                                          "/usr/bin/wget", "--loopback", "127.0.0.1:" + std::to_string(sandbox_.port()),
                                          "--timeout", "30"});
    ASSERT_EQ(overLoopback.status, 0) << overLoopback.err;
    EXPECT_EQ(decodeJson<FlowPromptResponse>(overLoopback.out).value_or(FlowPromptResponse{}).scope,
              RuleScope::persistent)
        << overLoopback.out;
    auto rules = sandbox_.runTool({"rules"});
    ASSERT_EQ(rules.status, 0) << rules.err;
    EXPECT_NE(rules.out.find("exec=/usr/bin/wget host=updates.example.org port=8443"), std::string::npos)
        << rules.out;
}

TEST_F(QuillfortToolEndToEnd, AnswerResolvesAPromptAnotherToolWaitsFor) {
    auto& agent = sandbox_.launchAgent();
    // The lock names the running agent (what the watch compares the status file with).
    const auto holder = RunningAgent::holdingLock(sandbox_.container() / "QuillfortPromptBridge" / "QuillfortAgent.lock");
    ASSERT_TRUE(holder);
    EXPECT_EQ(holder->pid, agent.pid());
    EXPECT_TRUE(holder->startedAt);

    ChildProcess waiting = sandbox_.startTool({"prompt", "--host", "queued.example.net", "--port", "22", "--exe",
                                      "/usr/bin/ssh", "--tag", "ssh", "--no-loopback"});
    std::optional<Uuid> queued;
    ASSERT_TRUE(eventually([&] {
        auto status = sandbox_.status();
        if (status && !status->queuedPrompts.empty()) queued = status->queuedPrompts.front().promptID;
        return queued.has_value();
    })) << waiting.standardError();

    auto shown = sandbox_.runTool({"status"});
    ASSERT_EQ(shown.status, 0) << shown.err;
    EXPECT_NE(shown.out.find("*  " + queued->uppercaseString() + "  queued.example.net:22  ssh"), std::string::npos)
        << shown.out;

    auto answer = sandbox_.runTool({"answer", queued->uppercaseString(), "allow-once"});
    ASSERT_EQ(answer.status, 0) << answer.err;
    EXPECT_EQ(answer.out, "Answered prompt " + queued->uppercaseString() + " with allow-once.\n");

    ASSERT_EQ(waiting.waitFor(60s), 0) << waiting.standardError();
    auto response = decodeJson<FlowPromptResponse>(waiting.standardOutput());
    ASSERT_TRUE(response.has_value()) << waiting.standardOutput();
    EXPECT_EQ(response->promptID, *queued);
    EXPECT_EQ(response->action, RuleAction::allow);
    EXPECT_EQ(response->scope, RuleScope::temporary);
}

}  // namespace
}  // namespace quillfort
