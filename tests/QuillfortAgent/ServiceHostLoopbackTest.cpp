#include "QuillfortAgent/QuillfortAgentPromptServiceHost.hpp"

#include <future>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "contracts/PromptFrame.hpp"
#include "tests/QuillfortAgent/ServiceHostHarness.hpp"

namespace quillfort {
namespace {

using namespace quillfort::testing;

constexpr std::string_view decodeFailureText = "Failed to decode the Quillfort prompt request.";
constexpr std::string_view receiveFailure = "Failed to receive the loopback prompt request: ";

std::string requestFrame(std::uint64_t n) { return *encodeFrame(encodeCompact(sampleEnvelope(n))); }

// Starts a host with its loopback listener on a free port and waits until it listens.
std::uint16_t startListeningWith(ServiceHostHarness& harness, ServiceHostOptions options) {
    harness.startHost(std::move(options));
    EXPECT_TRUE(harness.runUntil([&] { return harness.host->status().loopbackListenerReady; }));
    return harness.host->loopbackPort();
}

std::uint16_t startListening(ServiceHostHarness& harness, Environment environment = {}) {
    return startListeningWith(harness, {.environment = std::move(environment)});
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

struct PieceCase {
    std::string name;
    std::function<std::vector<std::string>(const std::string&)> split;
};

class ServiceHostLoopbackPieces : public ::testing::TestWithParam<PieceCase> {};

// A directive answers at once, without a window, and both times are recorded.
TEST_P(ServiceHostLoopbackPieces, ReadsAFrameHoweverItArrives) {
    ServiceHostHarness harness;
    const auto port = startListening(harness, {{"QUILLFORT_AGENT_AUTOMATION_RESPONSE", "block-once"}});
    EXPECT_TRUE(harness.logged("Listening for loopback prompt requests on 127.0.0.1:" + std::to_string(port) + "."));

    auto reply = exchangeInBackground(port, GetParam().split(requestFrame(2)));
    const auto answer = decodeResponseFrame(awaitReply(harness, reply).value_or(""));
    ASSERT_TRUE(answer);
    EXPECT_EQ(answer->promptID, sampleUuid(2));
    ASSERT_TRUE(answer->response);
    EXPECT_EQ(answer->response->action, RuleAction::drop);
    EXPECT_EQ(answer->response->scope, RuleScope::temporary);
    EXPECT_TRUE(harness.host->status().lastPromptReceivedAt);
    EXPECT_TRUE(harness.host->status().lastPromptResolvedAt);
    EXPECT_THAT(harness.queuedIDs(), ::testing::IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(
    Splits, ServiceHostLoopbackPieces,
    ::testing::Values(PieceCase{"Whole", [](const std::string& f) { return std::vector<std::string>{f}; }},
                      PieceCase{"OneByteAtATime",
                                [](const std::string& f) {
                                    std::vector<std::string> pieces;
                                    for (char c : f) pieces.emplace_back(1, c);
                                    return pieces;
                                }},
                      PieceCase{"HeaderSplitInsidePayloadSplit",
                                [](const std::string& f) {
                                    return std::vector<std::string>{f.substr(0, 3), f.substr(3, 5), f.substr(8)};
                                }}),
    [](const auto& info) { return info.param.name; });

struct UndecodableCase {
    std::string name;
    std::string frame;
};

class ServiceHostLoopbackUndecodable : public ::testing::TestWithParam<UndecodableCase> {};

TEST_P(ServiceHostLoopbackUndecodable, IsAnsweredWithTheDecodeErrorUnderAFreshIdentifier) {
    ServiceHostHarness harness;
    const auto port = startListening(harness);

    auto reply = exchangeInBackground(port, {GetParam().frame});
    const auto answer = decodeResponseFrame(awaitReply(harness, reply).value_or(""));
    ASSERT_TRUE(answer);
    EXPECT_EQ(answer->errorMessage, std::string(decodeFailureText));
    EXPECT_FALSE(answer->response);
    // Identifier 100 named the session; the error envelope took the next one.
    EXPECT_EQ(answer->promptID, uuidNumber(101));
    EXPECT_TRUE(harness.logged("Failed to decode the loopback prompt request: "));
    EXPECT_FALSE(harness.host->status().lastPromptReceivedAt);
}

INSTANTIATE_TEST_SUITE_P(Frames, ServiceHostLoopbackUndecodable,
                         ::testing::Values(UndecodableCase{"ZeroLength", frameHeader(0)},
                                           UndecodableCase{"NotJson", *encodeFrame("{\"request\":")},
                                           UndecodableCase{"WrongShape", *encodeFrame("{\"createdAt\":1}")}),
                         [](const auto& info) { return info.param.name; });

struct CutCase {
    std::string name;
    std::string sent;
};

class ServiceHostLoopbackCut : public ::testing::TestWithParam<CutCase> {};

TEST_P(ServiceHostLoopbackCut, GetsNoAnswerAndIsLoggedAsAReceiveFailure) {
    ServiceHostHarness harness;
    const auto port = startListening(harness, {{"QUILLFORT_AGENT_AUTOMATION_RESPONSE", "allow-once"}});

    auto reply = exchangeInBackground(port, {GetParam().sent});
    EXPECT_EQ(awaitReply(harness, reply), std::optional<std::string>(""));
    EXPECT_TRUE(harness.waitForLog(std::string(receiveFailure) +
                                   "The loopback prompt connection closed before the full payload arrived."));
    EXPECT_FALSE(harness.host->status().lastPromptReceivedAt);
}

INSTANTIATE_TEST_SUITE_P(Streams, ServiceHostLoopbackCut,
                         ::testing::Values(CutCase{"InsidePayload", frameHeader(10) + "123456"},
                                           CutCase{"InsideHeader", std::string("\0\0", 2)}, CutCase{"Silent", ""}),
                         [](const auto& info) { return info.param.name; });

TEST(ServiceHostLoopback, CoordinatorAnswersReachTheRightClient) {
    ServiceHostHarness harness;
    const auto port = startListening(harness);

    auto first = exchangeInBackground(port, {requestFrame(3)});
    ASSERT_TRUE(harness.waitUntilQueued(sampleUuid(3)));
    auto second = exchangeInBackground(port, {requestFrame(4)});
    ASSERT_TRUE(harness.waitUntilQueued(sampleUuid(4)));

    // Once: a lasting answer would settle the first prompt too, being the same flow.
    harness.coordinator->resolvePrompt(sampleUuid(4), AgentPromptDecisionPreset::blockOnce);
    const auto secondFrame = awaitReply(harness, second);
    ASSERT_TRUE(secondFrame);
    EXPECT_EQ(decodeResponseFrame(*secondFrame)->promptID, sampleUuid(4));
    EXPECT_EQ(decodeResponseFrame(*secondFrame)->response->scope, RuleScope::temporary);
    // The first client is still waiting for its user.
    EXPECT_EQ(first.wait_for(0s), std::future_status::timeout);

    harness.coordinator->resolvePrompt(sampleUuid(3), AgentPromptDecisionPreset::allowOnce);
    const auto firstFrame = awaitReply(harness, first);
    ASSERT_TRUE(firstFrame);
    EXPECT_EQ(decodeResponseFrame(*firstFrame)->promptID, sampleUuid(3));
    EXPECT_EQ(decodeResponseFrame(*firstFrame)->response->action, RuleAction::allow);
}

TEST(ServiceHostLoopback, ClientWithoutACompleteFrameInTimeIsClosedButAWaitingPromptIsNot) {
    ServiceHostHarness harness;
    const auto port = startListeningWith(harness, {.loopbackRequestTimeout = 300ms});
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
    EXPECT_EQ(harness.logCount(std::string(receiveFailure) + "The loopback prompt request did not arrive in time."), 2u);

    // Long past its own deadline, the prompt that waits for the user still gets its answer.
    harness.coordinator->resolvePrompt(sampleUuid(7), AgentPromptDecisionPreset::blockOnce);
    const auto answer = decodeResponseFrame(awaitReply(harness, waiting).value_or(""));
    ASSERT_TRUE(answer);
    EXPECT_EQ(answer->promptID, sampleUuid(7));
}

TEST(ServiceHostLoopback, OversizeRequestsAreAnsweredWithTheLimitOnBothTransports) {
    ServiceHostHarness harness;
    const auto port = startListeningWith(harness, {.maximumRequestSize = 64});
    const std::string expected = "The Quillfort prompt request is larger than the 64 bytes the agent accepts.";

    for (const std::uint32_t announced : {65u, 0xFFFFFFFFu}) {
        auto reply = exchangeInBackground(port, {frameHeader(announced)});
        const auto framed = decodeResponseFrame(awaitReply(harness, reply).value_or(""));
        ASSERT_TRUE(framed) << announced;
        EXPECT_EQ(framed->errorMessage, expected);
    }
    EXPECT_TRUE(harness.logged(std::string(receiveFailure) + "The loopback prompt request is larger than the agent accepts."));

    const auto file = harness.writeRequest(sampleEnvelope(8));
    ASSERT_TRUE(harness.waitForResponse(sampleUuid(8)));
    EXPECT_EQ(harness.response(sampleUuid(8))->errorMessage, expected);
    EXPECT_FALSE(harness.response(sampleUuid(8))->response);
    EXPECT_TRUE(harness.runUntil([&] { return !std::filesystem::exists(file); }));
    EXPECT_THAT(harness.queuedIDs(), ::testing::IsEmpty());
}

// --- Byte budgets ------------------------------------------------------------

// How the read that holds most of the frame budget ends.
struct HeldFrameEnd {
    std::string name;
    bool completes;  // sends the rest of its frame, else closes inside it
};

class ServiceHostLoopbackFrameBudget : public ::testing::TestWithParam<HeldFrameEnd> {};

TEST_P(ServiceHostLoopbackFrameBudget, RefusesFramesPastTheSumOfAllConnectionsAndTakesThemOnceBytesComeBack) {
    const auto probe = requestFrame(21);
    const auto held = requestFrame(22);
    // The probe alone fits; the probe beside half of the held frame does not.
    ServiceHostHarness harness;
    const auto port = startListeningWith(
        harness, {.environment = {{"QUILLFORT_AGENT_AUTOMATION_RESPONSE", "allow-once"}},
                  .loopbackFrameBytesBudget = probe.size() + held.size() / 4});
    const auto budgetText = frameBudgetExceededMessage(probe.size() + held.size() / 4);
    const auto exchangeProbe = [&] {
        auto reply = exchangeInBackground(port, {probe});
        return decodeResponseFrame(awaitReply(harness, reply).value_or(""));
    };

    LoopbackTestClient holder(port);
    ASSERT_TRUE(holder.connected());
    ASSERT_TRUE(holder.send(held.substr(0, held.size() / 2)));
    // The holder's bytes reach the agent at some point; from then on the probe is refused.
    ASSERT_TRUE(harness.runUntil([&] {
        const auto answer = exchangeProbe();
        return answer && answer->errorMessage == budgetText && !answer->response;
    }));
    EXPECT_TRUE(harness.logged(std::string(receiveFailure) +
                               "The loopback prompt requests being received together exceed the bytes the agent "
                               "holds for them."));

    // The holder was not disturbed by the refusals beside it.
    if (GetParam().completes) {
        ASSERT_TRUE(holder.send(held.substr(held.size() / 2)));
    } else {
        holder.finishSending();
    }
    auto holderReply = std::async(std::launch::async, [&holder] { return holder.receiveAll(); });
    ASSERT_TRUE(harness.runUntil([&] { return holderReply.wait_for(0s) == std::future_status::ready; }));
    const auto holderFrame = holderReply.get().value_or("-");
    if (GetParam().completes) {
        const auto answer = decodeResponseFrame(holderFrame);
        ASSERT_TRUE(answer);
        EXPECT_EQ(answer->promptID, sampleUuid(22));
    } else {
        EXPECT_EQ(holderFrame, "");
    }

    // Its bytes came back when its read ended, so the probe fits again.
    const auto answer = exchangeProbe();
    ASSERT_TRUE(answer);
    EXPECT_EQ(answer->promptID, sampleUuid(21));
    EXPECT_TRUE(answer->response);
}

INSTANTIATE_TEST_SUITE_P(Ends, ServiceHostLoopbackFrameBudget,
                         ::testing::Values(HeldFrameEnd{"Completed", true}, HeldFrameEnd{"CutShort", false}),
                         [](const auto& info) { return info.param.name; });

// Which transport brings the request that finds the queue full.
struct QueueBudgetCase {
    std::string name;
    bool overLoopback;
};

class ServiceHostQueueBudget : public ::testing::TestWithParam<QueueBudgetCase> {};

TEST_P(ServiceHostQueueBudget, RefusesRequestsPastTheQueuedBytesUntilAnAnswerGivesThemBack) {
    const auto waiting = encodeCompact(sampleEnvelope(31));
    const auto late = sampleEnvelope(32);
    const auto budget = waiting.size() + encodeCompact(late).size() / 2;
    ServiceHostHarness harness;
    const auto port = startListeningWith(harness, {.queuedRequestBytesBudget = budget});

    harness.writeRequest(sampleEnvelope(31));
    ASSERT_TRUE(harness.waitUntilQueued(sampleUuid(31)));

    // Sends the late request and, over loopback, waits for what comes back.
    std::future<std::optional<std::string>> loopbackReply;
    const auto sendLate = [&] {
        if (GetParam().overLoopback) {
            loopbackReply = exchangeInBackground(port, {*encodeFrame(encodeCompact(late))});
        } else {
            harness.writeRequest(late);
        }
    };

    sendLate();
    std::optional<QuillfortPromptBridgeResponseEnvelope> refusal;
    if (GetParam().overLoopback) {
        refusal = decodeResponseFrame(awaitReply(harness, loopbackReply).value_or(""));
    } else {
        ASSERT_TRUE(harness.waitForResponse(sampleUuid(32)));
        refusal = harness.response(sampleUuid(32));
        EXPECT_TRUE(harness.runUntil(
            [&] { return !std::filesystem::exists(harness.requestsDirectory() / bridgeFileName(sampleUuid(32))); }));
    }
    ASSERT_TRUE(refusal);
    EXPECT_EQ(refusal->promptID, sampleUuid(32));
    EXPECT_FALSE(refusal->response);
    EXPECT_EQ(refusal->errorMessage, queueBudgetExceededMessage(budget));
    EXPECT_TRUE(harness.logged("Refused prompt " + sampleUuid(32).uppercaseString()));
    EXPECT_THAT(harness.queuedIDs(), ::testing::ElementsAre(sampleUuid(31)));

    // The prompt that was waiting is still served, and its answer frees its bytes.
    // As its client would, so that the answer to the retry below is a new file.
    if (!GetParam().overLoopback) {
        ASSERT_TRUE(harness.fileSystem->removeItem(harness.responsesDirectory() / bridgeFileName(sampleUuid(32))));
    }
    harness.coordinator->resolvePrompt(sampleUuid(31), AgentPromptDecisionPreset::allowOnce);
    ASSERT_TRUE(harness.waitForResponse(sampleUuid(31)));
    EXPECT_TRUE(harness.response(sampleUuid(31))->response);

    sendLate();
    EXPECT_TRUE(harness.waitUntilQueued(sampleUuid(32)));
    harness.coordinator->resolvePrompt(sampleUuid(32), AgentPromptDecisionPreset::blockOnce);
    if (GetParam().overLoopback) {
        const auto answer = decodeResponseFrame(awaitReply(harness, loopbackReply).value_or(""));
        ASSERT_TRUE(answer);
        EXPECT_TRUE(answer->response);
    } else {
        ASSERT_TRUE(harness.waitForResponse(sampleUuid(32)));
        EXPECT_TRUE(harness.response(sampleUuid(32))->response);
    }
}

INSTANTIATE_TEST_SUITE_P(Transports, ServiceHostQueueBudget,
                         ::testing::Values(QueueBudgetCase{"File", false}, QueueBudgetCase{"Loopback", true}),
                         [](const auto& info) { return info.param.name; });

}  // namespace
}  // namespace quillfort
