#include "tools/QuillfortCommandLine.hpp"

#include <ostream>
#include <sstream>

#include <gtest/gtest.h>

#include "contracts/PromptAgentAutomationCommandStore.hpp"
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

// What one invocation left: its exit status and both streams.
struct Invocation {
    int status = -1;
    std::string out;
    std::string err;

    bool operator==(const Invocation&) const = default;
    friend std::ostream& operator<<(std::ostream& stream, const Invocation& invocation) {
        return stream << invocation.status << " out:\"" << invocation.out << "\" err:\"" << invocation.err << '"';
    }
};

class CommandLineTest : public ::testing::Test {
protected:
    CommandLineTest() : fileSystem_(std::make_shared<testing::FakeFileSystem>(home_.path())) {
        environment_ = CL::Environment{fileSystem_, std::make_shared<testing::SampleClock>(),
                                       std::make_shared<testing::SequentialUuidSource>(),
                                       ProcessLineage::ProcfsView::system(), 2s};
    }

    Invocation run(const std::vector<std::string>& arguments) {
        std::ostringstream out, err;
        const int status = CL::run(arguments, environment_, out, err);
        return {status, out.str(), err.str()};
    }

    // The same, on the shared folder of the temporary home.
    Invocation runAtHome(std::vector<std::string> arguments) {
        arguments.insert(arguments.end(), {"--home", home_.path().string()});
        return run(arguments);
    }

    [[nodiscard]] std::filesystem::path container() const {
        return *QuillfortSharedContainer::containerURL(*fileSystem_, home_.path());
    }

    testing::TemporaryDirectory home_;
    std::shared_ptr<testing::FakeFileSystem> fileSystem_;
    CL::Environment environment_;
};

// One row per way an invocation is refused (exit 2), and help (exit 0).
TEST_F(CommandLineTest, UsageErrorsExitWithTwoAndExplain) {
    const auto badRequest = home_.path() / "r.json";
    ASSERT_TRUE(fileSystem_->writeFileAtomically(badRequest, R"({"id":"x"})"));
    const std::string promptID = "00000000-0000-4000-8000-000000000001";
    const std::tuple<std::vector<std::string>, int, std::string> cases[] = {
        {{}, CL::exitUsage, "A subcommand is required"},
        {{"prompt", "--help"}, CL::exitSuccess, "quillfort prompt"},
        {{"answer", "not-a-uuid", "allow-once"}, CL::exitUsage, "\"not-a-uuid\" is not a prompt id"},
        {{"answer", promptID, "allow"}, CL::exitUsage,
         "valid presets: allow-once, allow-session, allow-permanent, block-once, block-session, block-permanent"},
        {{"prompt"}, CL::exitUsage, "--host is needed"},
        {{"prompt", "--host", "example.com", "--port", "65536"}, CL::exitUsage, "--port 65536 is not a port"},
        {{"prompt", "--host", "example.com", "--signing-id", "com.example"}, CL::exitUsage, "give --exe or --pid"},
        {{"prompt", "--request", "r.json", "--host", "example.com"}, CL::exitUsage, "--request excludes --host"},
        {{"prompt", "--request", badRequest.string()}, CL::exitUsage, "is not a prompt request: id: "},
        {{"prompt", "--host", "example.com", "--loopback", "localhost:27839"}, CL::exitUsage,
         "--loopback needs a dotted IPv4"},
    };
    for (const auto& [arguments, status, fragment] : cases) {
        auto invocation = run(arguments);
        EXPECT_EQ(invocation.status, status) << ::testing::PrintToString(arguments);
        EXPECT_NE((invocation.out + invocation.err).find(fragment), std::string::npos) << invocation;
    }
}

// Without their files status says the agent is not running and rules say there
// are none; --json passes a file on as it is, and the tables name a broken one.
TEST_F(CommandLineTest, StatusAndRulesShowTheirFilesOrSayWhyNot) {
    const auto statusFile = container() / "PromptAgentStatus.json";
    const std::string notRunning = "quillfort: The Quillfort agent has not published a status file at " +
                                   statusFile.string() + "; is it running?\n";
    EXPECT_EQ(runAtHome({"status"}), (Invocation{CL::exitFailure, "", notRunning}));
    EXPECT_EQ(runAtHome({"status", "--json"}), (Invocation{CL::exitFailure, "", notRunning}));
    EXPECT_EQ(runAtHome({"rules"}), (Invocation{CL::exitSuccess, "No rules yet.\n", ""}));
    // Standard output stays clean for whatever parses it.
    EXPECT_EQ(runAtHome({"rules", "--json"}), (Invocation{CL::exitSuccess, "", "No rules yet.\n"}));

    ASSERT_TRUE(fileSystem_->createDirectories(container()));
    const std::pair<std::string, std::filesystem::path> files[] = {{"status", statusFile},
                                                                   {"rules", container() / "RuleSnapshot.json"}};
    for (const auto& [command, file] : files) {
        ASSERT_TRUE(fileSystem_->writeFileAtomically(file, "{not json"));
        EXPECT_EQ(runAtHome({command, "--json"}), (Invocation{CL::exitSuccess, "{not json", ""}));
        auto table = runAtHome({command});
        EXPECT_EQ(table.status, CL::exitFailure);
        EXPECT_NE(table.err.find(file.filename().string()), std::string::npos) << table;
    }
}

// With --home (or no agent on the bus) the tool changes the file itself,
// under the agent's lock; an end needs the agent, which keeps the timers.
TEST_F(CommandLineTest, RuleChangesWithoutAnAgentWorkOnTheFile) {
    Rule second = testing::sampleRule();
    second.id = testing::sampleUuid(0x2000);
    second.name = "Second";
    const auto snapshot = container() / "RuleSnapshot.json";
    ASSERT_TRUE(RuleSnapshotStore(*fileSystem_, snapshot).save({testing::sampleDate(), {testing::sampleRule(), second}}));
    const std::string first = testing::sampleUuid(1).uppercaseString();

    EXPECT_EQ(runAtHome({"rules", "disable", first}),
              (Invocation{CL::exitSuccess, "Disabled rule 00000000 \"Allow curl to api.example.com\".\n", ""}));
    EXPECT_FALSE(RuleSnapshotStore(*fileSystem_, snapshot).load(testing::sampleDate())->rules[0].enabled);
    const std::tuple<std::vector<std::string>, int, std::string> refused[] = {
        {{"rules", "delete", "0000"}, CL::exitFailure, "names more than one rule"},
        {{"rules", "enable", "abcd"}, CL::exitFailure, "No rule has an id starting with \"abcd\""},
        {{"rules", "expire", first, "1h"}, CL::exitFailure, "start quillfort-agent first"},
        {{"rules", "expire", first, "soon"}, CL::exitUsage, "\"soon\" is not a duration"},
    };
    for (const auto& [arguments, status, fragment] : refused) {
        auto invocation = runAtHome(arguments);
        EXPECT_EQ(invocation.status, status) << invocation;
        EXPECT_NE(invocation.err.find(fragment), std::string::npos) << invocation;
    }
    EXPECT_EQ(runAtHome({"rules", "delete", second.id.uppercaseString().substr(0, 33)}).status, CL::exitSuccess);
    auto table = runAtHome({"rules"});
    EXPECT_NE(table.out.find("1 rule,"), std::string::npos) << table;
    EXPECT_NE(table.out.find("Allow curl to api.example.com [disabled]"), std::string::npos) << table;
}

// Nobody plays the agent here: taking the command and the success line are
// QuillfortToolEndToEnd.AnswerResolvesAPromptAnotherToolWaitsFor's.
TEST_F(CommandLineTest, AnswerIsLeftInTheAgentSessionAndNotOverwrittenWhileItWaits) {
    environment_.commandPickupLimit = 100ms;
    auto session = *QuillfortPromptEndpointStore::bridgeSessionDirectoryURL("S1", *fileSystem_, home_.path());
    ASSERT_TRUE(fileSystem_->createDirectories(session / "Requests"));
    ASSERT_TRUE(QuillfortPromptEndpointStore::save(
        QuillfortPromptListenerRecord{QuillfortPromptBridgeTransportKind::fileRequestResponse, std::nullopt,
                                      (session / "Requests").string(), (session / "Responses").string(), "S1"},
        *fileSystem_, home_.path()));

    auto first = runAtHome({"answer", "00000000-0000-4000-8000-00000000000a", "allow-session"});
    EXPECT_EQ(first.status, CL::exitFailure);
    EXPECT_NE(first.err.find("has not taken the answer"), std::string::npos) << first;
    EXPECT_EQ(runAtHome({"answer", testing::sampleUuid(4).uppercaseString(), "block-once"}).status, CL::exitFailure);
    auto pending =
        PromptAgentAutomationCommandStore(*fileSystem_, session / "PromptAgentAutomationCommand.json").loadIfPresent();
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
    const auto id = testing::sampleUuid(5);
    auto request = CL::buildPromptRequest(options, id, testing::sampleDate(), ProcessLineage::ProcfsView::system());
    ASSERT_TRUE(request.has_value()) << request.error();

    FlowPromptRequest expected;
    expected.id = id;
    FlowIdentity& flow = expected.context.flow;
    flow.extensionGeneratedID = "quillfort-cli-" + id.uppercaseString();
    flow.transportProtocol = TransportProtocol::udp;
    flow.hostText = "api.example.com";
    flow.port = 443;
    flow.remoteEndpoint = NetworkEndpoint{"api.example.com", 443};
    flow.timestamp = testing::sampleDate();
    ProcessNode& node = expected.context.matchedProcessNode.emplace();
    node.identity.executablePath = "/usr/bin/curl";
    node.identity.signingID = "com.apple.curl";
    node.identity.launchTime = testing::sampleDate();
    node.tags = {ProcessTag::terminal, ProcessTag::shell};
    EXPECT_EQ(*request, expected);
}

TEST(QuillfortCommandLine, LoopbackEndpointText) {
    using Endpoint = std::optional<std::pair<std::string, std::uint16_t>>;
    const std::pair<std::string, Endpoint> cases[] = {
        {"127.0.0.1:27839", std::pair<std::string, std::uint16_t>{"127.0.0.1", 27839}},
        {"localhost:27839", std::nullopt},
        {"127.0.0.1", std::nullopt},
        {"127.0.0.1:65536", std::nullopt},
    };
    for (const auto& [text, expected] : cases) EXPECT_EQ(CL::parseLoopbackEndpoint(text), expected) << text;
}

}  // namespace
}  // namespace quillfort
