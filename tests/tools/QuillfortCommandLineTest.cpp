#include "tools/QuillfortCommandLine.hpp"

#include <unistd.h>

#include <sstream>

#include <gtest/gtest.h>

#include "contracts/PromptAgentAutomationCommandStore.hpp"
#include "contracts/PromptAgentStatusStore.hpp"
#include "contracts/QuillfortPromptEndpointStore.hpp"
#include "contracts/QuillfortSharedContainer.hpp"
#include "contracts/RuleSnapshotStore.hpp"
#include "tests/testsupport/FakeFileSystem.hpp"
#include "tests/testsupport/ModelSamples.hpp"
#include "tests/testsupport/SequentialUuidSource.hpp"
#include "tests/testsupport/TemporaryDirectory.hpp"

namespace quillfort {
namespace {

namespace CL = QuillfortCommandLine;
using namespace std::chrono_literals;

class FixedClock final : public Clock {
public:
    [[nodiscard]] std::chrono::system_clock::time_point now() const override { return testing::sampleDate(); }
};

struct Invocation {
    int status = -1;
    std::string out;
    std::string err;
};

class CommandLineTest : public ::testing::Test {
protected:
    CommandLineTest() : fileSystem_(std::make_shared<testing::FakeFileSystem>(home_.path())) {
        environment_ = CL::Environment{fileSystem_, std::make_shared<FixedClock>(),
                                       std::make_shared<testing::SequentialUuidSource>(),
                                       ProcessLineage::ProcfsView::system(), 2s};
    }

    Invocation run(std::vector<std::string> arguments) {
        std::ostringstream out, err;
        Invocation invocation;
        invocation.status = CL::run(arguments, environment_, out, err);
        invocation.out = out.str();
        invocation.err = err.str();
        return invocation;
    }

    [[nodiscard]] std::filesystem::path container() const {
        return *QuillfortSharedContainer::containerURL(*fileSystem_, home_.path());
    }

    // Publishes a file-bridge manifest for the session directory and returns it.
    std::filesystem::path publishSession() {
        auto session = *QuillfortPromptEndpointStore::bridgeSessionDirectoryURL("S1", *fileSystem_, home_.path());
        EXPECT_TRUE(fileSystem_->createDirectories(session / "Requests"));
        EXPECT_TRUE(QuillfortPromptEndpointStore::save(
            QuillfortPromptListenerRecord{QuillfortPromptBridgeTransportKind::fileRequestResponse, std::nullopt,
                                          (session / "Requests").string(), (session / "Responses").string(), "S1"},
            *fileSystem_, home_.path()));
        return session;
    }

    testing::TemporaryDirectory home_;
    std::shared_ptr<testing::FakeFileSystem> fileSystem_;
    CL::Environment environment_;
};

struct UsageCase {
    std::vector<std::string> arguments;
    std::string errorFragment;
};

TEST_F(CommandLineTest, UsageErrorsExitWithTwoAndExplain) {
    const auto badRequest = home_.path() / "r.json";
    ASSERT_TRUE(fileSystem_->writeFileAtomically(badRequest, R"({"id":"x"})"));
    const UsageCase cases[] = {
        {{}, "A subcommand is required"},
        {{"answer", "not-a-uuid", "allow-once"}, "\"not-a-uuid\" is not a prompt id"},
        {{"answer", "00000000-0000-4000-8000-000000000001", "allow"},
         "valid presets: allow-once, allow-session, allow-permanent, block-once, block-session, block-permanent"},
        {{"answer", "00000000-0000-4000-8000-000000000001"}, "PRESET is required"},
        {{"prompt"}, "--host is needed"},
        {{"prompt", "--host", "example.com", "--port", "70000"}, "--port 70000 is not a port"},
        {{"prompt", "--host", "example.com", "--tag", "bogus"}, "bogus"},
        {{"prompt", "--host", "example.com", "--signing-id", "com.example"}, "give --exe or --pid"},
        {{"prompt", "--request", "r.json", "--host", "example.com"}, "--request excludes --host"},
        {{"prompt", "--request", badRequest.string()}, "is not a prompt request: id: "},  // names the failing key
        {{"prompt", "--host", "example.com", "--loopback", "localhost:27839"}, "--loopback needs a dotted IPv4"},
        {{"prompt", "--host", "example.com", "--timeout", "-1"}, "--timeout"},
        {{"rules", "--frobnicate"}, "--frobnicate"},
    };
    for (const auto& [arguments, fragment] : cases) {
        auto invocation = run(arguments);
        EXPECT_EQ(invocation.status, CL::exitUsage) << ::testing::PrintToString(arguments);
        EXPECT_NE(invocation.err.find(fragment), std::string::npos)
            << ::testing::PrintToString(arguments) << ": " << invocation.err;
    }
}

TEST_F(CommandLineTest, EveryCommandHasHelp) {
    for (std::string command : {"prompt", "status", "answer", "rules", "watch"}) {
        auto invocation = run({command, "--help"});
        EXPECT_EQ(invocation.status, CL::exitSuccess) << command;
        EXPECT_NE(invocation.out.find("quillfort " + command), std::string::npos) << invocation.out;
    }
}

TEST_F(CommandLineTest, StatusAsksWhetherTheAgentRunsUntilItsFileIsThereAndThenShowsItAsItIs) {
    for (std::vector<std::string> arguments : {std::vector<std::string>{"status"}, {"status", "--json"}}) {
        arguments.insert(arguments.end(), {"--home", home_.path().string()});
        auto invocation = run(arguments);
        EXPECT_EQ(invocation.status, CL::exitFailure);
        EXPECT_EQ(invocation.err, "quillfort: The Quillfort agent has not published a status file at " +
                                      (container() / "PromptAgentStatus.json").string() + "; is it running?\n");
    }

    PromptAgentStatusSnapshot status;
    status.statusText = "Prompt bridge ready.";
    PromptAgentStatusStore store(*fileSystem_, container() / "PromptAgentStatus.json");
    ASSERT_TRUE(store.save(status));

    auto json = run({"status", "--json", "--home", home_.path().string()});
    EXPECT_EQ(json.status, CL::exitSuccess);
    EXPECT_EQ(json.out, *fileSystem_->readFile(*store.snapshotURL()));

    auto table = run({"status", "--home", home_.path().string()});
    EXPECT_EQ(table.status, CL::exitSuccess);
    EXPECT_TRUE(table.out.starts_with("Quillfort agent: Prompt bridge ready.\n")) << table.out;
}

TEST_F(CommandLineTest, RulesSayNoRulesYetUntilASnapshotIsThereAndThenListIt) {
    auto table = run({"rules", "--home", home_.path().string()});
    EXPECT_EQ(table.status, CL::exitSuccess);
    EXPECT_EQ(table.out, "No rules yet.\n");

    auto json = run({"rules", "--json", "--home", home_.path().string()});
    EXPECT_EQ(json.status, CL::exitSuccess);
    EXPECT_EQ(json.out, "");
    EXPECT_EQ(json.err, "No rules yet.\n");

    RuleSnapshotStore store(*fileSystem_, container() / "RuleSnapshot.json");
    ASSERT_TRUE(store.save(RuleSnapshotEnvelope{testing::sampleDate(), {testing::sampleRule()}}));

    table = run({"rules", "--home", home_.path().string()});
    EXPECT_EQ(table.status, CL::exitSuccess);
    EXPECT_NE(table.out.find("allow   persistent  Allow curl to api.example.com  exec=/usr/bin/curl"),
              std::string::npos)
        << table.out;

    ASSERT_TRUE(fileSystem_->writeFileAtomically(*store.snapshotURL(), "{not json"));
    auto broken = run({"rules", "--home", home_.path().string()});
    EXPECT_EQ(broken.status, CL::exitFailure);
    EXPECT_NE(broken.err.find("RuleSnapshot.json"), std::string::npos) << broken.err;
}

// Nobody plays the agent here: taking the command and the success line are
// QuillfortToolEndToEnd.AnswerResolvesAPromptAnotherToolWaitsFor's.
TEST_F(CommandLineTest, AnswerIsLeftInTheAgentSessionAndNotOverwrittenWhileItWaits) {
    environment_.commandPickupLimit = 100ms;
    const auto commandFile = publishSession() / "PromptAgentAutomationCommand.json";

    auto invocation =
        run({"answer", "--home", home_.path().string(), "00000000-0000-4000-8000-00000000000a", "allow-session"});
    EXPECT_EQ(invocation.status, CL::exitFailure);
    EXPECT_NE(invocation.err.find("has not taken the answer"), std::string::npos) << invocation.err;

    auto second = run({"answer", "--home", home_.path().string(), testing::sampleUuid(4).uppercaseString(),
                       "block-once"});
    EXPECT_EQ(second.status, CL::exitFailure);
    auto pending = PromptAgentAutomationCommandStore(*fileSystem_, commandFile).loadIfPresent();
    ASSERT_TRUE(pending && *pending);
    EXPECT_EQ(**pending, (PromptAgentAutomationCommand{testing::sampleUuid(10), FlowPromptAutomationPreset::allowSession,
                                                       testing::sampleDate()}));
}

TEST(QuillfortCommandLine, PromptRequestFromFlags) {
    CL::PromptFlowOptions options;
    options.host = "api.example.com";
    options.port = 443;
    options.protocol = TransportProtocol::udp;
    options.executablePath = "/usr/bin/curl";
    options.signingID = "com.apple.curl";
    options.tags = {ProcessTag::terminal, ProcessTag::shell};

    auto request = CL::buildPromptRequest(options, testing::sampleUuid(5), testing::sampleDate(),
                                          ProcessLineage::ProcfsView::system());
    ASSERT_TRUE(request.has_value()) << request.error();

    EXPECT_EQ(request->id, testing::sampleUuid(5));
    const auto& flow = request->context.flow;
    EXPECT_EQ(flow.hostText, "api.example.com");
    EXPECT_EQ(flow.port, 443);
    EXPECT_EQ(flow.remoteEndpoint, (NetworkEndpoint{"api.example.com", 443}));
    EXPECT_EQ(flow.transportProtocol, TransportProtocol::udp);
    EXPECT_EQ(flow.direction, FlowDirection::outbound);
    EXPECT_EQ(flow.timestamp, testing::sampleDate());
    ASSERT_TRUE(request->context.matchedProcessNode.has_value());
    const auto& node = *request->context.matchedProcessNode;
    EXPECT_EQ(node.identity.executablePath, "/usr/bin/curl");
    EXPECT_EQ(node.identity.signingID, "com.apple.curl");
    EXPECT_EQ(node.tags, (std::set<ProcessTag>{ProcessTag::terminal, ProcessTag::shell}));
    EXPECT_TRUE(request->context.ancestorChain.empty());
}

TEST(QuillfortCommandLine, PromptRequestForALiveProcessCarriesItsAncestors) {
    CL::PromptFlowOptions options;
    options.host = "example.org";
    options.pid = static_cast<std::int32_t>(::getpid());
    options.teamID = "TEAM";

    auto request = CL::buildPromptRequest(options, testing::sampleUuid(6), testing::sampleDate(),
                                          ProcessLineage::ProcfsView::system());
    ASSERT_TRUE(request.has_value()) << request.error();

    const auto& node = request->context.matchedProcessNode.value();
    EXPECT_EQ(node.identity.pid, options.pid);
    EXPECT_EQ(node.identity.teamID, "TEAM");
    EXPECT_EQ(request->context.flow.sourceProcessAuditToken, node.identity.auditToken);
    EXPECT_FALSE(request->context.flow.remoteEndpoint.has_value());
    ASSERT_FALSE(request->context.ancestorChain.empty());
    EXPECT_EQ(request->context.ancestorChain.front().identity.pid, static_cast<std::int32_t>(::getppid()));
}

TEST(QuillfortCommandLine, LoopbackEndpointText) {
    using Endpoint = std::optional<std::pair<std::string, std::uint16_t>>;
    const std::pair<std::string, Endpoint> cases[] = {
        {"127.0.0.1:27839", std::pair<std::string, std::uint16_t>{"127.0.0.1", 27839}},
        {"10.1.2.3:1", std::pair<std::string, std::uint16_t>{"10.1.2.3", 1}},
        {"localhost:27839", std::nullopt},
        {"127.0.0.1", std::nullopt},
        {"127.0.0.1:", std::nullopt},
        {":27839", std::nullopt},
        {"127.0.0.1:65536", std::nullopt},
        {"[::1]:27839", std::nullopt},
    };
    for (const auto& [text, expected] : cases) EXPECT_EQ(CL::parseLoopbackEndpoint(text), expected) << text;
}

}  // namespace
}  // namespace quillfort
