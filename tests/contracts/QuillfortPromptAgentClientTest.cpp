#include "contracts/QuillfortPromptAgentClient.hpp"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <future>
#include <mutex>
#include <thread>

#include <gtest/gtest.h>

#include "contracts/PromptFrame.hpp"
#include "contracts/QuillfortPromptBridgeEnvelopes.hpp"
#include "contracts/QuillfortPromptEndpointStore.hpp"
#include "tests/testsupport/FakeFileSystem.hpp"
#include "tests/testsupport/ModelSamples.hpp"
#include "tests/testsupport/TemporaryDirectory.hpp"

namespace quillfort {
namespace {

using testing::FakeFileSystem;
using testing::TemporaryDirectory;
using ClientError = QuillfortPromptAgentClientError;
namespace Messages = QuillfortPromptAgentClientMessages;
using namespace std::chrono_literals;

constexpr double generousTimeout = 20.0;

FlowPromptRequest sampleRequest() {
    return FlowPromptRequest{testing::sampleUuid(7), testing::sampleFlowContext(), std::nullopt};
}

FlowPromptResponse sampleResponse() {
    FlowPromptResponse response;
    response.promptID = testing::sampleUuid(7);
    response.action = RuleAction::allow;
    response.scope = RuleScope::persistent;
    response.persist = true;
    response.suggestedRule = testing::sampleRule();
    return response;
}

std::string responseEnvelopeJson(std::optional<FlowPromptResponse> response,
                                 std::optional<std::string> errorMessage = std::nullopt) {
    return encodeCompact(QuillfortPromptBridgeResponseEnvelope{testing::sampleUuid(7), std::move(response),
                                                               std::move(errorMessage), testing::sampleDate()});
}

template <class Predicate>
bool eventually(Predicate predicate, std::chrono::seconds limit = 10s) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (std::chrono::steady_clock::now() < deadline) {
        if (predicate()) return true;
        std::this_thread::sleep_for(20ms);
    }
    return predicate();
}

bool sendAll(int socket, std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t sent = ::send(socket, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (sent <= 0) return false;
        bytes.remove_prefix(static_cast<std::size_t>(sent));
    }
    return true;
}

// A loopback listener on an ephemeral 127.0.0.1 port that reads one request
// frame per connection and answers with whatever bytes the test chose.
class StandInLoopbackAgent {
public:
    explicit StandInLoopbackAgent(std::string replyBytes) : reply_(std::move(replyBytes)) {
        listener_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof(address);
        if (listener_ < 0 || ::bind(listener_, reinterpret_cast<sockaddr*>(&address), length) != 0 ||
            ::listen(listener_, 8) != 0 || ::getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length) != 0)
            throw std::runtime_error("cannot open the stand-in listener");
        port_ = ntohs(address.sin_port);
        thread_ = std::thread([this] { serve(); });
    }
    ~StandInLoopbackAgent() {
        stop_ = true;
        thread_.join();
        ::close(listener_);
    }

    static std::string frame(std::string_view payload) { return *encodeFrame(payload); }

    [[nodiscard]] std::uint16_t port() const { return port_; }
    [[nodiscard]] int connections() const { return connections_; }
    [[nodiscard]] std::optional<QuillfortPromptBridgeRequestEnvelope> lastRequest() const {
        std::lock_guard guard(mutex_);
        return lastRequest_;
    }

private:
    void serve() {
        while (!stop_) {
            pollfd waiting{listener_, POLLIN, 0};
            if (::poll(&waiting, 1, 50) <= 0) continue;
            const int client = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
            if (client < 0) continue;
            ++connections_;
            auto payload = readFrame([client](std::span<char> buffer) -> std::expected<std::size_t, int> {
                const ssize_t received = ::recv(client, buffer.data(), buffer.size(), 0);
                if (received < 0) return std::unexpected(errno);
                return static_cast<std::size_t>(received);
            });
            if (payload) {
                std::lock_guard guard(mutex_);
                if (auto envelope = decodeJson<QuillfortPromptBridgeRequestEnvelope>(*payload))
                    lastRequest_ = *envelope;
            }
            (void)sendAll(client, reply_);
            ::close(client);
        }
    }

    std::string reply_;
    int listener_ = -1;
    std::uint16_t port_ = 0;
    std::atomic<bool> stop_{false};
    std::atomic<int> connections_{0};
    mutable std::mutex mutex_;
    std::optional<QuillfortPromptBridgeRequestEnvelope> lastRequest_;
    std::thread thread_;
};

// A home with a published file-bridge manifest, as a running agent leaves it.
class ClientBridgeTest : public ::testing::Test {
protected:
    ClientBridgeTest() : fileSystem_(std::make_shared<FakeFileSystem>(home_.path())) {
        session_ = QuillfortPromptEndpointStore::bridgeSessionDirectoryURL("SESSION", *fileSystem_, home_.path())
                       .value();
        publish(QuillfortPromptListenerRecord{QuillfortPromptBridgeTransportKind::fileRequestResponse, std::nullopt,
                                              (session_ / "Requests").string(), (session_ / "Responses").string(),
                                              "SESSION"});
    }

    void publish(const QuillfortPromptListenerRecord& record) {
        ASSERT_TRUE(QuillfortPromptEndpointStore::save(record, *fileSystem_, home_.path()));
    }

    [[nodiscard]] QuillfortPromptAgentClient client(std::optional<std::string> host = std::nullopt,
                                                    std::optional<std::uint16_t> port = std::nullopt) const {
        return QuillfortPromptAgentClient(fileSystem_, home_.path(), std::move(host), port);
    }

    [[nodiscard]] std::filesystem::path requestFile() const {
        return session_ / "Requests" / bridgeFileName(testing::sampleUuid(7));
    }
    [[nodiscard]] std::filesystem::path responseFile() const {
        return session_ / "Responses" / bridgeFileName(testing::sampleUuid(7));
    }

    // Plays the agent's side of the bridge once: waits for the request, then
    // leaves `bytes` as the answer.
    std::future<void> answerOnce(std::string bytes) {
        return std::async(std::launch::async, [this, bytes = std::move(bytes)] {
            if (eventually([&] { return std::filesystem::exists(requestFile()); }))
                (void)fileSystem_->writeFileAtomically(responseFile(), bytes);
        });
    }

    TemporaryDirectory home_;
    std::shared_ptr<FakeFileSystem> fileSystem_;
    std::filesystem::path session_;
};

TEST(QuillfortPromptAgentClient, NoManifestAndNoLoopbackFailsBeforeSubmitReturns) {
    TemporaryDirectory home;
    auto fileSystem = std::make_shared<FakeFileSystem>(home.path());
    QuillfortPromptAgentClient client(fileSystem, home.path(), std::nullopt, std::nullopt);

    std::optional<QuillfortPromptAgentClientResult> delivered;
    client.submit(sampleRequest(), [&](QuillfortPromptAgentClientResult result) { delivered = std::move(result); });

    ASSERT_TRUE(delivered.has_value());
    EXPECT_EQ(delivered->error(), ClientError::missingEndpoint());
}

TEST(QuillfortPromptAgentClient, HostNameIsNotAnIPv4Address) {
    TemporaryDirectory home;
    auto fileSystem = std::make_shared<FakeFileSystem>(home.path());
    QuillfortPromptAgentClient client(fileSystem, home.path(), "localhost", 27839);

    EXPECT_EQ(client.submitSync(sampleRequest(), generousTimeout).error(), ClientError::invalidEndpointData());
}

TEST_F(ClientBridgeTest, AnswerOverTheBridgeIsReturnedAndItsFileRemoved) {
    auto agent = answerOnce(responseEnvelopeJson(sampleResponse()));

    auto result = client().submitSync(sampleRequest(), generousTimeout);
    agent.get();

    ASSERT_TRUE(result.has_value()) << result.error();
    EXPECT_EQ(*result, sampleResponse());
    EXPECT_FALSE(std::filesystem::exists(responseFile()));
    // The request file is the agent's to remove once it has answered.
    auto written = decodeJson<QuillfortPromptBridgeRequestEnvelope>(*fileSystem_->readFile(requestFile()));
    ASSERT_TRUE(written.has_value());
    EXPECT_EQ(written->request, sampleRequest());
}

struct BridgeAnswerCase {
    std::string name;
    std::string answer;
    ClientError expected;
    bool responseFileRemains;
};

class ClientBridgeAnswerTest : public ClientBridgeTest, public ::testing::WithParamInterface<BridgeAnswerCase> {};

TEST_P(ClientBridgeAnswerTest, UnsuccessfulAnswersMapToTheirErrorsWithoutFallback) {
    const auto& param = GetParam();
    StandInLoopbackAgent loopback(StandInLoopbackAgent::frame(responseEnvelopeJson(sampleResponse())));
    auto agent = answerOnce(param.answer);

    auto result = client("127.0.0.1", loopback.port()).submitSync(sampleRequest(), generousTimeout);
    agent.get();

    ASSERT_FALSE(result.has_value());
    EXPECT_EQ(result.error(), param.expected);
    EXPECT_EQ(loopback.connections(), 0);
    EXPECT_EQ(std::filesystem::exists(responseFile()), param.responseFileRemains);
}

INSTANTIATE_TEST_SUITE_P(
    Answers, ClientBridgeAnswerTest,
    ::testing::Values(
        BridgeAnswerCase{"ErrorEnvelope", responseEnvelopeJson(sampleResponse(), "The user closed the prompt."),
                         ClientError::remoteFailure("The user closed the prompt."), false},
        BridgeAnswerCase{"NoResponse", responseEnvelopeJson(std::nullopt), ClientError::missingResponse(), false},
        BridgeAnswerCase{"NotAnEnvelope", R"({"promptID":"nope"})", ClientError::invalidResponseDecoding(), true}),
    [](const auto& info) { return info.param.name; });

TEST_F(ClientBridgeTest, UnwritableBridgeFailsWithTheBridgeWriteText) {
    fileSystem_->failOn(FakeFileSystem::Operation::createDirectories, session_ / "Requests", EACCES);

    auto result = client().submitSync(sampleRequest(), generousTimeout);

    EXPECT_EQ(result.error(), ClientError::transportFailure(std::string(Messages::bridgeWriteFailed)));
}

TEST_F(ClientBridgeTest, UnwritableBridgeFallsBackToLoopback) {
    fileSystem_->failOn(FakeFileSystem::Operation::writeFileAtomically, requestFile(), EROFS);
    StandInLoopbackAgent loopback(StandInLoopbackAgent::frame(responseEnvelopeJson(sampleResponse())));

    auto result = client("127.0.0.1", loopback.port()).submitSync(sampleRequest(), generousTimeout);

    ASSERT_TRUE(result.has_value()) << result.error();
    EXPECT_EQ(*result, sampleResponse());
    ASSERT_TRUE(loopback.lastRequest().has_value());
    EXPECT_EQ(loopback.lastRequest()->request, sampleRequest());
}

TEST_F(ClientBridgeTest, ServiceManifestIsUnavailableAndFallsBackToLoopback) {
    ASSERT_TRUE(QuillfortPromptEndpointStore::save("agent.service", *fileSystem_, home_.path()));

    EXPECT_EQ(client().submitSync(sampleRequest(), generousTimeout).error(),
              ClientError::transportFailure(std::string(Messages::machServiceUnavailable)));

    StandInLoopbackAgent loopback(StandInLoopbackAgent::frame(responseEnvelopeJson(sampleResponse())));
    auto result = client("127.0.0.1", loopback.port()).submitSync(sampleRequest(), generousTimeout);
    ASSERT_TRUE(result.has_value()) << result.error();
    EXPECT_EQ(loopback.connections(), 1);
}

TEST_F(ClientBridgeTest, TimeOutRemovesRequestAndResponseFiles) {
    // An empty answer file counts as not there yet, so the client keeps waiting
    // and must clean it up together with its request when it gives up.
    auto agent = answerOnce("");

    auto result = client().submitSync(sampleRequest(), 2.0);
    agent.get();

    EXPECT_EQ(result.error(), ClientError::transportFailure(std::string(Messages::timedOut)));
    EXPECT_TRUE(eventually([&] {
        return !std::filesystem::exists(requestFile()) && !std::filesystem::exists(responseFile());
    }));
}

TEST_F(ClientBridgeTest, StaleResponseIsRemovedBeforeTheRequestAppears) {
    ASSERT_TRUE(fileSystem_->createDirectories(responseFile().parent_path()));
    ASSERT_TRUE(fileSystem_->writeFileAtomically(responseFile(), responseEnvelopeJson(sampleResponse())));

    auto result = client().submitSync(sampleRequest(), 0.3);

    // The old answer was never taken for this request.
    EXPECT_EQ(result.error(), ClientError::transportFailure(std::string(Messages::timedOut)));
    const auto calls = fileSystem_->calls();
    auto position = [&](FakeFileSystem::Operation operation, const std::filesystem::path& path) {
        return std::find_if(calls.begin(), calls.end(),
                            [&](const auto& call) { return call.operation == operation && call.path == path; });
    };
    const auto removal = position(FakeFileSystem::Operation::removeItem, responseFile());
    const auto write = position(FakeFileSystem::Operation::writeFileAtomically, requestFile());
    ASSERT_NE(removal, calls.end());
    ASSERT_NE(write, calls.end());
    EXPECT_LT(removal, write);
}

struct LoopbackReplyCase {
    std::string name;
    std::string replyBytes;
    ClientError expected;
};

class ClientLoopbackReplyTest : public ::testing::TestWithParam<LoopbackReplyCase> {};

TEST_P(ClientLoopbackReplyTest, BadRepliesAreTransportFailures) {
    TemporaryDirectory home;
    auto fileSystem = std::make_shared<FakeFileSystem>(home.path());
    StandInLoopbackAgent loopback(GetParam().replyBytes);
    QuillfortPromptAgentClient client(fileSystem, home.path(), "127.0.0.1", loopback.port());

    auto result = client.submitSync(sampleRequest(), generousTimeout);

    ASSERT_FALSE(result.has_value());
    EXPECT_EQ(result.error(), GetParam().expected);
}

std::string decoderText(std::string_view payload) {
    return decodeJson<QuillfortPromptBridgeResponseEnvelope>(payload).error().description();
}

INSTANTIATE_TEST_SUITE_P(
    Replies, ClientLoopbackReplyTest,
    ::testing::Values(
        LoopbackReplyCase{"NotAnEnvelope", StandInLoopbackAgent::frame(R"({"hello":1})"),
                          ClientError::transportFailure(decoderText(R"({"hello":1})"))},
        LoopbackReplyCase{"EmptyPayload", StandInLoopbackAgent::frame(""),
                          ClientError::transportFailure(decoderText(""))},
        LoopbackReplyCase{"ClosedInsidePayload", std::string("\0\0\0\x0a", 4) + "abcdef",
                          ClientError::transportFailure(std::string(Messages::loopbackClosedEarly))},
        LoopbackReplyCase{"ClosedInsideHeader", std::string("\0\0", 2),
                          ClientError::transportFailure(std::string(Messages::loopbackClosedEarly))},
        LoopbackReplyCase{"ErrorEnvelope", StandInLoopbackAgent::frame(responseEnvelopeJson(std::nullopt, "denied")),
                          ClientError::remoteFailure("denied")}),
    [](const auto& info) { return info.param.name; });

struct TimeoutCase {
    std::optional<double> seconds;
    std::optional<std::pair<long, long>> expected;
};

class ClientSocketTimeoutTest : public ::testing::TestWithParam<TimeoutCase> {};

TEST_P(ClientSocketTimeoutTest, SplitsIntoWholeSecondsAndTruncatedMicroseconds) {
    auto value = QuillfortPromptAgentClient::loopbackSocketTimeout(GetParam().seconds);
    ASSERT_EQ(value.has_value(), GetParam().expected.has_value());
    if (value) {
        EXPECT_EQ(value->tv_sec, GetParam().expected->first);
        EXPECT_EQ(value->tv_usec, GetParam().expected->second);
    }
}

INSTANTIATE_TEST_SUITE_P(Timeouts, ClientSocketTimeoutTest,
                         ::testing::Values(TimeoutCase{1.25, std::pair{1L, 250000L}},
                                           TimeoutCase{0.5, std::pair{0L, 500000L}},
                                           TimeoutCase{3.0, std::pair{3L, 0L}},
                                           TimeoutCase{2.0000019, std::pair{2L, 1L}},
                                           TimeoutCase{0.0, std::nullopt}, TimeoutCase{-1.0, std::nullopt},
                                           TimeoutCase{std::nullopt, std::nullopt}));

TEST(QuillfortPromptAgentClient, PosixErrorDescriptionFallsBackToTheNumber) {
    EXPECT_EQ(QuillfortPromptAgentClient::posixSocketErrorDescription("Failed to connect", ECONNREFUSED),
              "Failed to connect: Connection refused");
    EXPECT_EQ(QuillfortPromptAgentClient::posixSocketErrorDescription("Failed to connect", 99999),
              "Failed to connect. errno=99999");
}

// Four prompts held by an agent that never answers occupy the client's
// workers; a fifth whose caller gives up meanwhile must never reach the agent,
// or the user would be asked about a flow nobody waits for.
TEST(ClientGivingUp, APromptWhoseCallerGaveUpIsNeverSent) {
    // Never answers: connections are accepted and left waiting.
    const int listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof(address);
    ASSERT_EQ(::bind(listener, reinterpret_cast<sockaddr*>(&address), length), 0);
    ASSERT_EQ(::listen(listener, 16), 0);
    ASSERT_EQ(::getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length), 0);
    std::vector<int> accepted;
    const auto acceptWaiting = [&](int waitMillis) {
        pollfd waiting{listener, POLLIN, 0};
        while (::poll(&waiting, 1, waitMillis) > 0) accepted.push_back(::accept4(listener, nullptr, nullptr, 0));
    };

    TemporaryDirectory home;
    const QuillfortPromptAgentClient client(nullptr, home.path(), "127.0.0.1", ntohs(address.sin_port));
    std::vector<std::thread> held;
    for (int i = 0; i < 4; ++i) held.emplace_back([&client] { (void)client.submitSync(sampleRequest(), 2.0); });
    ASSERT_TRUE(eventually([&] {
        acceptWaiting(0);
        return accepted.size() == 4;
    }));

    const auto late = client.submitSync(sampleRequest(), 0.2);
    ASSERT_FALSE(late);
    EXPECT_EQ(late.error(), ClientError::transportFailure(std::string(Messages::timedOut)));
    for (auto& thread : held) thread.join();  // their time-outs free the workers for the fifth
    acceptWaiting(500);
    EXPECT_EQ(accepted.size(), 4U);
    for (const int fd : accepted) ::close(fd);
    ::close(listener);
}

}  // namespace
}  // namespace quillfort
