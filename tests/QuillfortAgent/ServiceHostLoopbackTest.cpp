#include "QuillfortAgent/host/QuillfortAgentPromptServiceHost.hpp"

#include <future>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "contracts/PromptFrame.hpp"
#include "tests/QuillfortAgent/ServiceHostHarness.hpp"

namespace quillfort {
namespace {

using namespace quillfort::testing;


std::string requestFrame(std::uint64_t n) { return *encodeFrame(encodeCompact(sampleEnvelope(n))); }

// Starts a host with its loopback listener on a free port and waits until it listens.
std::uint16_t startListening(ServiceHostHarness& harness, Environment environment = {},
                             const std::function<void(HostSettings&)>& adjust = {}) {
    harness.makeHost(std::move(environment), adjust)->start();
    EXPECT_TRUE(harness.runUntil([&] { return harness.host->status().loopbackListenerReady; }));
    return harness.host->loopbackPort();
}

// The client blocks on its socket, so it runs beside the test thread, which
// keeps running the main thread for the coordinator meanwhile.
std::future<std::optional<std::string>> exchangeInBackground(std::uint16_t port, std::vector<std::string> pieces) {
    return std::async(std::launch::async, [port, pieces = std::move(pieces)] { return exchangeFrames(port, pieces); });
}

std::optional<std::string> awaitReply(ServiceHostHarness& harness, std::future<std::optional<std::string>>& reply) {
    if (!harness.runUntil([&] { return reply.wait_for(0s) == std::future_status::ready; })) return std::nullopt;
    return reply.get();
}

std::optional<QuillfortPromptBridgeResponseEnvelope> answerTo(ServiceHostHarness& harness, std::uint16_t port,
                                                             std::vector<std::string> pieces) {
    auto reply = exchangeInBackground(port, std::move(pieces));
    return decodeResponseFrame(awaitReply(harness, reply).value_or(""));
}

// A directive answers at once, without a window, and both times are recorded.
TEST(ServiceHostLoopback, ReadsAFrameHoweverItArrives) {
    const auto frame = requestFrame(2);
    std::vector<std::string> oneByteAtATime;
    for (char c : frame) oneByteAtATime.emplace_back(1, c);
    for (const auto& pieces : {std::vector<std::string>{frame}, oneByteAtATime}) {
        SCOPED_TRACE(pieces.size());
        ServiceHostHarness harness;
        const auto port = startListening(harness, {{"QUILLFORT_AGENT_AUTOMATION_RESPONSE", "block-once"}});

        const auto answer = answerTo(harness, port, pieces);
        ASSERT_TRUE(answer && answer->response);
        EXPECT_EQ(answer->promptID, sampleUuid(2));
        EXPECT_EQ(answer->response->action, RuleAction::drop);
        EXPECT_TRUE(harness.host->status().lastPromptReceivedAt);
        EXPECT_TRUE(harness.host->status().lastPromptResolvedAt);
    }
}

// An undecodable frame is answered with the decode error under a fresh
// identifier; a stream cut short gets no answer. Neither counts as received.
TEST(ServiceHostLoopback, BadFramesAreAnsweredOrClosedAndNotReceived) {
    const std::pair<std::string, bool> cases[] = {{frameHeader(0), true},
                                                  {*encodeFrame("{\"request\":"), true},
                                                  {frameHeader(10) + "123456", false},
                                                  {std::string("\0\0", 2), false}};
    for (const auto& [sent, answered] : cases) {
        SCOPED_TRACE(sent.size());
        ServiceHostHarness harness;
        const auto port = startListening(harness, {{"QUILLFORT_AGENT_AUTOMATION_RESPONSE", "allow-once"}});

        auto reply = exchangeInBackground(port, {sent});
        const auto received = awaitReply(harness, reply);
        ASSERT_TRUE(received);
        if (answered) {
            const auto answer = decodeResponseFrame(*received);
            ASSERT_TRUE(answer);
            EXPECT_EQ(answer->errorMessage, std::string(decodeFailureText));
            EXPECT_FALSE(answer->response);
            // Identifier 100 named the session; the error envelope took the next one.
            EXPECT_EQ(answer->promptID, uuidNumber(101));
        } else {
            EXPECT_EQ(*received, "");
            EXPECT_TRUE(harness.waitForLog("Failed to receive the loopback prompt request: "));
        }
        EXPECT_FALSE(harness.host->status().lastPromptReceivedAt);
    }
}

TEST(ServiceHostLoopback, CoordinatorAnswersReachTheRightClient) {
    ServiceHostHarness harness;
    const auto port = startListening(harness);

    auto first = exchangeInBackground(port, {requestFrame(3)});
    ASSERT_TRUE(harness.waitUntilQueued(sampleUuid(3)));
    auto second = exchangeInBackground(port, {requestFrame(4)});
    ASSERT_TRUE(harness.waitUntilQueued(sampleUuid(4)));

    // Once: a lasting answer would settle the first prompt too, being the same flow.
    harness.coordinator->resolvePrompt(sampleUuid(4), AgentPromptDecisionPreset::blockOnce);
    const auto secondAnswer = decodeResponseFrame(awaitReply(harness, second).value_or(""));
    ASSERT_TRUE(secondAnswer);
    EXPECT_EQ(secondAnswer->promptID, sampleUuid(4));
    // The first client is still waiting for its user.
    EXPECT_EQ(first.wait_for(0s), std::future_status::timeout);

    harness.coordinator->resolvePrompt(sampleUuid(3), AgentPromptDecisionPreset::allowOnce);
    const auto firstAnswer = decodeResponseFrame(awaitReply(harness, first).value_or(""));
    ASSERT_TRUE(firstAnswer && firstAnswer->response);
    EXPECT_EQ(firstAnswer->promptID, sampleUuid(3));
    EXPECT_EQ(firstAnswer->response->action, RuleAction::allow);
}

TEST(ServiceHostLoopback, ClientWithoutACompleteFrameInTimeIsClosedButAWaitingPromptIsNot) {
    ServiceHostHarness harness;
    const auto port = startListening(harness, {}, [](auto& settings) { settings.loopbackRequestTimeout = 300ms; });
    auto waiting = exchangeInBackground(port, {requestFrame(7)});
    ASSERT_TRUE(harness.waitUntilQueued(sampleUuid(7)));

    // Silent, and trickling a header that never completes.
    for (const std::string& sent : {std::string(), std::string(2, '\0')}) {
        LoopbackTestClient idle(port);
        ASSERT_TRUE(idle.connected());
        ASSERT_TRUE(idle.send(sent));
        auto closed = std::async(std::launch::async, [&idle] { return idle.receiveAll(); });
        ASSERT_TRUE(harness.runUntil([&] { return closed.wait_for(0s) == std::future_status::ready; }));
        EXPECT_EQ(closed.get(), std::optional<std::string>(""));
    }

    // Long past its own deadline, the prompt that waits for the user still gets its answer.
    harness.coordinator->resolvePrompt(sampleUuid(7), AgentPromptDecisionPreset::blockOnce);
    const auto answer = decodeResponseFrame(awaitReply(harness, waiting).value_or(""));
    ASSERT_TRUE(answer);
    EXPECT_EQ(answer->promptID, sampleUuid(7));
}

TEST(ServiceHostLoopback, OversizeRequestsAreAnsweredWithTheLimitOnBothTransports) {
    ServiceHostHarness harness;
    const auto port = startListening(harness, {}, [](auto& settings) { settings.maximumRequestSize = 64; });
    const std::string expected = "The Quillfort prompt request is larger than the 64 bytes the agent accepts.";

    for (const std::uint32_t announced : {65u, 0xFFFFFFFFu}) {
        const auto framed = answerTo(harness, port, {frameHeader(announced)});
        ASSERT_TRUE(framed) << announced;
        EXPECT_EQ(framed->errorMessage, expected);
    }

    const auto file = harness.writeRequest(sampleEnvelope(8));
    ASSERT_TRUE(harness.waitForResponse(sampleUuid(8)));
    EXPECT_EQ(harness.response(sampleUuid(8))->errorMessage, expected);
    EXPECT_FALSE(harness.response(sampleUuid(8))->response);
    EXPECT_TRUE(harness.runUntil([&] { return !std::filesystem::exists(file); }));
    EXPECT_THAT(harness.queuedIDs(), ::testing::IsEmpty());
}

// --- Byte budgets ------------------------------------------------------------

TEST(ServiceHostLoopback, RefusesFramesPastTheSumOfAllConnectionsAndTakesThemOnceBytesComeBack) {
    const auto probe = requestFrame(21);
    const auto held = requestFrame(22);
    // The probe alone fits; the probe beside half of the held frame does not.
    const auto budget = probe.size() + held.size() / 4;
    ServiceHostHarness harness;
    const auto port = startListening(harness, {{"QUILLFORT_AGENT_AUTOMATION_RESPONSE", "allow-once"}},
                                     [&](auto& settings) { settings.loopbackFrameBytesBudget = budget; });

    LoopbackTestClient holder(port);
    ASSERT_TRUE(holder.connected());
    ASSERT_TRUE(holder.send(held.substr(0, held.size() / 2)));
    // The holder's bytes reach the agent at some point; from then on the probe is refused.
    ASSERT_TRUE(harness.runUntil([&] {
        const auto answer = answerTo(harness, port, {probe});
        return answer && answer->errorMessage == frameBudgetExceededMessage(budget) && !answer->response;
    }));

    // The holder was not disturbed by the refusals beside it.
    ASSERT_TRUE(holder.send(held.substr(held.size() / 2)));
    auto holderReply = std::async(std::launch::async, [&holder] { return holder.receiveAll(); });
    ASSERT_TRUE(harness.runUntil([&] { return holderReply.wait_for(0s) == std::future_status::ready; }));
    const auto holderAnswer = decodeResponseFrame(holderReply.get().value_or(""));
    ASSERT_TRUE(holderAnswer);
    EXPECT_EQ(holderAnswer->promptID, sampleUuid(22));

    // Its bytes came back when its read ended, so the probe fits again.
    const auto answer = answerTo(harness, port, {probe});
    ASSERT_TRUE(answer && answer->response);
    EXPECT_EQ(answer->promptID, sampleUuid(21));
}

// The queued bytes are shared by both transports: a file request waits, a late
// request over either is refused, and once the first is answered a file
// request with the refused one's name is taken again.
TEST(ServiceHostQueueBudget, RefusesRequestsPastTheQueuedBytesUntilAnAnswerGivesThemBack) {
    const auto waiting = encodeCompact(sampleEnvelope(31));
    const auto budget = waiting.size() + encodeCompact(sampleEnvelope(32)).size() / 2;
    ServiceHostHarness harness;
    const auto port = startListening(harness, {}, [&](auto& settings) { settings.queuedRequestBytesBudget = budget; });
    harness.writeRequest(sampleEnvelope(31));
    ASSERT_TRUE(harness.waitUntilQueued(sampleUuid(31)));

    const auto overLoopback = answerTo(harness, port, {requestFrame(33)});
    const auto lateFile = harness.writeRequest(sampleEnvelope(32));
    ASSERT_TRUE(harness.waitForResponse(sampleUuid(32)));
    const std::pair<std::optional<QuillfortPromptBridgeResponseEnvelope>, Uuid> refusals[] = {
        {overLoopback, sampleUuid(33)}, {harness.response(sampleUuid(32)), sampleUuid(32)}};
    for (const auto& [refusal, id] : refusals) {
        ASSERT_TRUE(refusal);
        EXPECT_EQ(refusal->promptID, id);
        EXPECT_FALSE(refusal->response);
        EXPECT_EQ(refusal->errorMessage, queueBudgetExceededMessage(budget));
    }
    EXPECT_THAT(harness.queuedIDs(), ::testing::ElementsAre(sampleUuid(31)));
    EXPECT_TRUE(harness.runUntil([&] { return !std::filesystem::exists(lateFile); }));
    // As its client would, so that the answer to the retry below is a new file.
    ASSERT_TRUE(harness.fileSystem->removeItem(harness.responsesDirectory() / bridgeFileName(sampleUuid(32))));

    // The prompt that was waiting is still served, and its answer frees its bytes.
    harness.coordinator->resolvePrompt(sampleUuid(31), AgentPromptDecisionPreset::allowOnce);
    ASSERT_TRUE(harness.waitForResponse(sampleUuid(31)));
    EXPECT_TRUE(harness.response(sampleUuid(31))->response);
    harness.writeRequest(sampleEnvelope(32));
    EXPECT_TRUE(harness.waitUntilQueued(sampleUuid(32)));
}

}  // namespace
}  // namespace quillfort
