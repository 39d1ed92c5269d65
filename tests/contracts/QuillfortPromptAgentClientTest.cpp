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
#include <functional>
#include <future>
#include <mutex>
#include <thread>

#include <gtest/gtest.h>

#include "contracts/PromptFrame.hpp"
#include "contracts/QuillfortPromptBridgeEnvelopes.hpp"
#include "contracts/QuillfortPromptEndpointStore.hpp"
#include "tests/testsupport/AgentSandbox.hpp"
#include "tests/testsupport/FakeFileSystem.hpp"
#include "tests/testsupport/ModelSamples.hpp"
#include "tests/testsupport/TemporaryDirectory.hpp"

namespace quillfort {
namespace {

using testing::eventually;
using testing::sampleRequest;
using testing::FakeFileSystem;
using testing::TemporaryDirectory;
using ClientError = QuillfortPromptAgentClientError;
namespace Messages = QuillfortPromptAgentClientMessages;

constexpr double generousTimeout = 20.0;

FlowPromptResponse sampleResponse() {
    return {testing::sampleUuid(7), RuleAction::allow, RuleScope::persistent, true, std::nullopt, testing::sampleRule()};
}

std::string responseEnvelopeJson(std::optional<FlowPromptResponse> response,
                                 std::optional<std::string> errorMessage = std::nullopt) {
    return encodeCompact(QuillfortPromptBridgeResponseEnvelope{testing::sampleUuid(7), std::move(response),
                                                               std::move(errorMessage), testing::sampleDate()});
}

// A loopback listener on an ephemeral 127.0.0.1 port that reads one request
// frame per connection and answers with the bytes the test chose.
class StandInLoopbackAgent {
public:
    explicit StandInLoopbackAgent(std::string replyBytes) : reply_(std::move(replyBytes)) {
        listener_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof(address);
        if (listener_ < 0 || ::bind(listener_, reinterpret_cast<sockaddr*>(&address), length) != 0 ||
            ::listen(listener_, 128) != 0 ||
            ::getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length) != 0)
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
            auto payload = readFrame([client](std::span<char> buffer) -> std::expected<std::size_t, int> {
                const ssize_t received = ::recv(client, buffer.data(), buffer.size(), 0);
                if (received < 0) return std::unexpected(errno);
                return static_cast<std::size_t>(received);
            });
            if (payload) {
                auto envelope = decodeJson<QuillfortPromptBridgeRequestEnvelope>(*payload);
                std::lock_guard guard(mutex_);
                lastRequest_ = envelope ? std::optional(*envelope) : std::nullopt;
            }
            (void)::send(client, reply_.data(), reply_.size(), MSG_NOSIGNAL);  // small: fits the socket buffer
            ::close(client);
        }
    }

    std::string reply_;
    int listener_ = -1;
    std::uint16_t port_ = 0;
    std::atomic<bool> stop_{false};
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
        EXPECT_TRUE(QuillfortPromptEndpointStore::save(
            QuillfortPromptListenerRecord{QuillfortPromptBridgeTransportKind::fileRequestResponse, std::nullopt,
                                          (session_ / "Requests").string(), (session_ / "Responses").string(),
                                          "SESSION"},
            *fileSystem_, home_.path()));
    }

    [[nodiscard]] QuillfortPromptAgentClient client(std::optional<std::string> host = std::nullopt,
                                                    std::optional<std::uint16_t> port = std::nullopt) const {
        return QuillfortPromptAgentClient(fileSystem_, home_.path(), std::move(host), port);
    }

    [[nodiscard]] std::filesystem::path requestFile(std::uint64_t id = 7) const {
        return session_ / "Requests" / bridgeFileName(testing::sampleUuid(id));
    }
    [[nodiscard]] std::filesystem::path responseFile(std::uint64_t id = 7) const {
        return session_ / "Responses" / bridgeFileName(testing::sampleUuid(id));
    }

    // Plays the agent's side of the bridge once: waits for the request, then
    // leaves `bytes` as the answer.
    std::future<void> answerOnce(std::string bytes, std::uint64_t id = 7) {
        return std::async(std::launch::async, [this, bytes = std::move(bytes), id] {
            if (eventually([&] { return std::filesystem::exists(requestFile(id)); }))
                (void)fileSystem_->writeFileAtomically(responseFile(id), bytes);
        });
    }

    TemporaryDirectory home_;
    std::shared_ptr<FakeFileSystem> fileSystem_;
    std::filesystem::path session_;
};

// Without a manifest the loopback endpoint needs both a host and a port, and
// the host must be a dotted IPv4 address.
TEST(QuillfortPromptAgentClient, WithoutAUsableEndpointFails) {
    TemporaryDirectory home;
    auto fileSystem = std::make_shared<FakeFileSystem>(home.path());
    const std::tuple<std::optional<std::string>, std::optional<std::uint16_t>, ClientError> cases[] = {
        {std::nullopt, 27839, ClientError::missingEndpoint()},
        {"", 27839, ClientError::missingEndpoint()},
        {"127.0.0.1", std::nullopt, ClientError::missingEndpoint()},
        {"localhost", 27839, ClientError::invalidEndpointData()},
    };
    for (const auto& [host, port, expected] : cases) {
        SCOPED_TRACE(host.value_or("no host"));
        EXPECT_EQ(QuillfortPromptAgentClient(fileSystem, home.path(), host, port)
                      .submitSync(sampleRequest(7), generousTimeout)
                      .error(),
                  expected);
    }
}

// Whatever the agent answers over the bridge is final, the loopback endpoint
// is not tried; the request file is the agent's to remove, and only an answer
// that cannot be read as an envelope is left for the agent to see.
TEST_F(ClientBridgeTest, BridgeAnswersMapToTheirResultsWithoutFallback) {
    using Result = QuillfortPromptAgentClientResult;
    const std::tuple<std::string, Result, bool> cases[] = {
        {responseEnvelopeJson(sampleResponse()), Result(sampleResponse()), false},
        {responseEnvelopeJson(sampleResponse(), "The user closed the prompt."),
         std::unexpected(ClientError::remoteFailure("The user closed the prompt.")), false},
        {responseEnvelopeJson(std::nullopt), std::unexpected(ClientError::missingResponse()), false},
        {R"({"promptID":"nope"})", std::unexpected(ClientError::invalidResponseDecoding()), true}};
    for (const auto& [answer, expected, responseFileRemains] : cases) {
        SCOPED_TRACE(answer);
        StandInLoopbackAgent loopback(StandInLoopbackAgent::frame(responseEnvelopeJson(sampleResponse())));
        auto agent = answerOnce(answer);
        auto result = client("127.0.0.1", loopback.port()).submitSync(sampleRequest(7), generousTimeout);
        agent.get();
        EXPECT_EQ(result, expected);
        EXPECT_FALSE(loopback.lastRequest().has_value());
        EXPECT_EQ(std::filesystem::exists(responseFile()), responseFileRemains);
        const auto written = fileSystem_->readFile(requestFile());
        EXPECT_EQ(decodeJson<QuillfortPromptBridgeRequestEnvelope>(written.value()).value().request, sampleRequest(7));
        // Played out as the agent would, so the next row's agent waits for the next request.
        (void)fileSystem_->removeItem(requestFile());
        (void)fileSystem_->removeItem(responseFile());
    }
}

// A bridge the client cannot use fails with its own text; a loopback endpoint
// given beside it is taken instead.
TEST_F(ClientBridgeTest, UnusableBridgeFailsWithItsTextOrFallsBackToLoopback) {
    const std::pair<std::function<void()>, std::string_view> cases[] = {
        // An answer folder the agent could not write to would leave the client
        // waiting for nothing, so it fails before the request is written.
        {[&] { fileSystem_->failOn(FakeFileSystem::Operation::setPosixPermissions, session_ / "Responses", EIO); },
         Messages::bridgeWriteFailed},
        {[&] { fileSystem_->failOn(FakeFileSystem::Operation::writeFileAtomically, requestFile(), EROFS); },
         Messages::bridgeWriteFailed},
        {[&] { ASSERT_TRUE(QuillfortPromptEndpointStore::save("agent.service", *fileSystem_, home_.path())); },
         Messages::machServiceUnavailable},
    };
    for (const auto& [breakBridge, text] : cases) {
        SCOPED_TRACE(text);
        fileSystem_->clearFailures();  // each row breaks the bridge its own way
        breakBridge();
        EXPECT_EQ(client().submitSync(sampleRequest(7), generousTimeout).error(),
                  ClientError::transportFailure(std::string(text)));
        StandInLoopbackAgent loopback(StandInLoopbackAgent::frame(responseEnvelopeJson(sampleResponse())));
        EXPECT_EQ(client("127.0.0.1", loopback.port()).submitSync(sampleRequest(7), generousTimeout),
                  QuillfortPromptAgentClientResult(sampleResponse()));
        EXPECT_EQ(loopback.lastRequest().value().request, sampleRequest(7));
    }
}

// A stale answer under the request's name is removed before the request
// appears, never taken for it; an empty answer file counts as not there yet,
// and a client that gives up cleans up both files.
TEST_F(ClientBridgeTest, StaleAnswerIsNeverTakenAndTimeOutRemovesBothFiles) {
    ASSERT_TRUE(fileSystem_->createDirectories(responseFile().parent_path()));
    ASSERT_TRUE(fileSystem_->writeFileAtomically(responseFile(), responseEnvelopeJson(sampleResponse())));
    auto agent = answerOnce("");

    auto result = client().submitSync(sampleRequest(7), 2.0);
    agent.get();

    EXPECT_EQ(result.error(), ClientError::transportFailure(std::string(Messages::timedOut)));
    EXPECT_TRUE(eventually([&] {
        return !std::filesystem::exists(requestFile()) && !std::filesystem::exists(responseFile());
    }));
}

TEST(QuillfortPromptAgentClient, BadLoopbackRepliesAreTransportFailures) {
    TemporaryDirectory home;
    auto fileSystem = std::make_shared<FakeFileSystem>(home.path());
    const std::pair<std::string, ClientError> cases[] = {
        {StandInLoopbackAgent::frame(R"({"hello":1})"),
         ClientError::transportFailure(decodeJson<QuillfortPromptBridgeResponseEnvelope>(R"({"hello":1})")
                                           .error()
                                           .description())},
        {std::string("\0\0\0\x0a", 4) + "abcdef", ClientError::transportFailure(std::string(Messages::loopbackClosedEarly))},
        {StandInLoopbackAgent::frame(responseEnvelopeJson(std::nullopt, "denied")), ClientError::remoteFailure("denied")}};
    for (const auto& [replyBytes, expected] : cases) {
        StandInLoopbackAgent loopback(replyBytes);
        QuillfortPromptAgentClient client(fileSystem, home.path(), "127.0.0.1", loopback.port());
        EXPECT_EQ(client.submitSync(sampleRequest(7), generousTimeout).error(), expected) << replyBytes;
    }
}

TEST(QuillfortPromptAgentClient, SocketTimeoutSplitsIntoWholeSecondsAndTruncatedMicroseconds) {
    using Split = std::optional<std::pair<long, long>>;
    const std::pair<std::optional<double>, Split> cases[] = {
        {0.5, std::pair{0L, 500000L}}, {2.0000019, std::pair{2L, 1L}}, {0.0, std::nullopt}, {std::nullopt, std::nullopt}};
    for (const auto& [seconds, expected] : cases) {
        const auto value = QuillfortPromptAgentClient::loopbackSocketTimeout(seconds);
        EXPECT_EQ(value ? Split(std::pair<long, long>(value->tv_sec, value->tv_usec)) : std::nullopt, expected)
            << seconds.value_or(-99);
    }
}

// The client runs completions on its one thread, so a completion that blocks
// holds every later submission back; a caller that gives up meanwhile must
// never have its prompt written, or the user would be asked about a flow
// nobody waits for.
TEST_F(ClientBridgeTest, APromptWhoseCallerGaveUpIsNeverWritten) {
    const auto bridgeClient = client();
    std::promise<void> holding;
    std::promise<void> release;
    auto answered = answerOnce(responseEnvelopeJson(sampleResponse()));
    bridgeClient.submit(sampleRequest(7), [&holding, released = release.get_future().share()](auto) {
        holding.set_value();
        released.wait();
    });
    holding.get_future().wait();
    answered.get();

    const auto late = bridgeClient.submitSync(sampleRequest(8), 0.2);
    release.set_value();
    // Submissions start in order, so once a third is answered the late one's turn has passed.
    auto third = answerOnce(responseEnvelopeJson(sampleResponse()), 9);
    const auto thirdResult = bridgeClient.submitSync(sampleRequest(9), generousTimeout);
    third.get();

    EXPECT_EQ(late.error(), ClientError::transportFailure(std::string(Messages::timedOut)));
    ASSERT_TRUE(thirdResult.has_value()) << thirdResult.error();
    EXPECT_EQ(std::ranges::count(fileSystem_->calls(),
                                 FakeFileSystem::Call{FakeFileSystem::Operation::writeFileAtomically, requestFile(8), {}}),
              0);
}

// Sixty-four prompts wait for a user who does not come; an automated answer
// for another flow must not queue behind them, and when the client goes away
// every waiting submission still hears how it ended and its request is withdrawn.
TEST_F(ClientBridgeTest, AutomatedPromptCompletesWhileSixtyFourWait) {
    std::optional<QuillfortPromptAgentClient> waitingClient(client());
    const auto requestsWritten = [&] {
        std::error_code error;
        int requests = 0;
        for (const auto& entry : std::filesystem::directory_iterator(session_ / "Requests", error))
            requests += entry.path().extension() == ".json";
        return requests;
    };
    std::mutex lock;
    std::vector<QuillfortPromptAgentClientResult> waitingResults;
    for (std::uint64_t id = 100; id < 164; ++id) {
        waitingClient->submit(sampleRequest(id), [&](QuillfortPromptAgentClientResult result) {
            std::lock_guard guard(lock);
            waitingResults.push_back(std::move(result));
        });
    }
    ASSERT_TRUE(eventually([&] { return requestsWritten() == 64; })) << requestsWritten() << " prompts reached the agent";

    auto agent = answerOnce(responseEnvelopeJson(sampleResponse()));
    const auto answered = waitingClient->submitSync(sampleRequest(7, "auto.example.com"), generousTimeout);
    agent.get();
    EXPECT_EQ(answered, QuillfortPromptAgentClientResult(sampleResponse()));
    {
        std::lock_guard guard(lock);
        EXPECT_TRUE(waitingResults.empty()) << "the automated answer came after a waiting one ended";
    }

    waitingClient.reset();
    ASSERT_EQ(waitingResults.size(), 64U);
    for (const auto& result : waitingResults)
        EXPECT_EQ(result.error(), ClientError::transportFailure(std::string(Messages::clientStopped)));
    for (std::uint64_t id = 100; id < 164; ++id)
        EXPECT_FALSE(std::filesystem::exists(requestFile(id))) << id;
}

}  // namespace
}  // namespace quillfort
