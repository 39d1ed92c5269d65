#include "QuillfortAgent/host/QuillfortAgentPromptServiceHost.hpp"

#include <algorithm>
#include <cerrno>

#include <boost/asio/ip/tcp.hpp>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "contracts/PromptAgentStatusStore.hpp"
#include "contracts/RuleSnapshotStore.hpp"
#include "tests/QuillfortAgent/ServiceHostHarness.hpp"

namespace quillfort {
namespace {

using namespace quillfort::testing;
using ::testing::ElementsAre;
using ::testing::SizeIs;


std::optional<PromptAgentStatusSnapshot> statusOnDisk(ServiceHostHarness& harness) {
    return PromptAgentStatusStore(*harness.fileSystem, harness.statusFile()).loadIfPresent().value_or(std::nullopt);
}

// The file bridge alone, answering every prompt with `answer`.
Environment withDirective(const std::string& answer) {
    return {{"QUILLFORT_AGENT_DISABLE_LOOPBACK_LISTENER", "1"}, {"QUILLFORT_AGENT_AUTOMATION_RESPONSE", answer}};
}

// --- Start-up and status texts ------------------------------------------------

struct StartCase {
    std::string name;
    bool loopbackDisabled, manifestFails, portTaken;
    std::string statusText;
    bool listenerReady, loopbackListenerReady;
};

class ServiceHostStart : public ::testing::TestWithParam<StartCase> {};

TEST_P(ServiceHostStart, SettlesOnTheStatusOfWhatCameUp) {
    const auto& param = GetParam();
    ServiceHostHarness harness;

    // Occupying a port makes the listener fail the way a second listener would.
    using boost::asio::ip::tcp;
    std::optional<tcp::acceptor> blocker;
    if (param.portTaken) blocker.emplace(harness.mainContext, tcp::endpoint(boost::asio::ip::address_v4::loopback(), 0));
    const std::uint16_t port = blocker ? blocker->local_endpoint().port() : 0;
    harness.makeHost(param.loopbackDisabled ? fileOnly : Environment{},
                     [&](auto& settings) { settings.loopbackPort = port; });
    EXPECT_EQ(harness.host->status().statusText, "Starting prompt bridge...");
    if (param.manifestFails) {
        harness.fakeFileSystem->failOn(FakeFileSystem::Operation::createDirectories, harness.requestsDirectory(),
                                       EACCES);
    }
    harness.host->start();

    ASSERT_TRUE(harness.runUntil([&] { return harness.host->status().statusText == param.statusText; }))
        << harness.host->status().statusText;
    const auto status = harness.host->status();
    EXPECT_EQ(status.listenerReady, param.listenerReady);
    EXPECT_EQ(status.manifestPublished, param.listenerReady);
    EXPECT_EQ(status.loopbackListenerReady, param.loopbackListenerReady);
    // The coordinator shows the same line, and the file ends with the newest snapshot.
    EXPECT_TRUE(harness.runUntil([&] { return harness.coordinator->listenerStatus().value() == param.statusText; }));
    EXPECT_TRUE(harness.runUntil([&] { return statusOnDisk(harness) == harness.host->status(); }));
}

INSTANTIATE_TEST_SUITE_P(
    StatusTexts, ServiceHostStart,
    ::testing::Values(
        StartCase{"AllUp", false, false, false, "Prompt bridge ready.", true, true},
        StartCase{"LoopbackDisabled", true, false, false,
                  "Prompt manifest published. Loopback listener disabled for automation.", true, false},
        StartCase{"ManifestUnavailable", false, true, false, "Loopback listener ready (manifest unavailable).", false,
                  true},
        StartCase{"NothingUp", true, true, false,
                  "Prompt manifest unavailable. Waiting for prompt listener readiness.", false, false},
        StartCase{"ListenerFailed", false, false, true, "Prompt manifest published, but the loopback listener failed.",
                  true, false},
        StartCase{"BothFailed", false, true, true, "Prompt bridge degraded: loopback listener failed.", false,
                  false}),
    [](const auto& info) { return info.param.name; });

// --- Requests and their answers ---------------------------------------------

TEST(ServiceHostFileBridge, FocusElsewhereLeavesThePromptToTheCoordinator) {
    ServiceHostHarness harness;
    harness.makeHost({{"QUILLFORT_AGENT_AUTOMATION_RESPONSE", "allow-once"},
                      {"QUILLFORT_AUTOMATION_RULE_HOST", "other.example.org"}})
        ->start();
    // The file's name is not the prompt's id: the answer still goes under the id.
    const auto requestFile = harness.writeRequest(sampleEnvelope(2), "client-chosen-name.json");

    ASSERT_TRUE(harness.waitUntilQueued(sampleUuid(2)));
    EXPECT_FALSE(harness.response(sampleUuid(2)));
    // The status follows every change of the coordinator's queue, not only the
    // first (which entries it shows is the status publisher's test).
    ASSERT_TRUE(harness.runUntil([&] { return harness.host->status().activePromptCount == 1; }));
    EXPECT_EQ(harness.host->status().activePrompt->promptID, sampleUuid(2));
    // Still in the directory while it waits, the file is not handed on again by
    // later looks: another file lands, and once the look it causes has ended
    // (with the command file's, its last step) a second hand-off would be
    // waiting on the main thread.
    const auto commandLooks = [&] {
        return harness.fakeFileSystem->count(FakeFileSystem::Operation::fileIdentity, harness.commandFile());
    };
    const auto seen = commandLooks();
    harness.writeFile(harness.requestsDirectory() / "notes.txt", "not a request");
    ASSERT_TRUE(harness.runUntil([&] { return commandLooks() > seen; }));
    harness.mainContext.poll();
    EXPECT_EQ(harness.logCount("Queued prompt " + sampleUuid(2).uppercaseString()), 1u);

    harness.coordinator->resolvePrompt(sampleUuid(2), AgentPromptDecisionPreset::blockOnce);
    ASSERT_TRUE(harness.waitForResponse(sampleUuid(2)));
    EXPECT_EQ(harness.response(sampleUuid(2))->response->action, RuleAction::drop);
    EXPECT_TRUE(harness.runUntil([&] { return !harness.fileSystem->exists(requestFile); }));
    EXPECT_TRUE(harness.runUntil([&] { return harness.host->status().activePromptCount == 0; }));
}

// --- What is taken from the requests directory, and in which order -----------

TEST(ServiceHostFileBridge, TakesJsonFilesEarliestFirstWithUnknownDatesFirstAndTiesInListingOrder) {
    ServiceHostHarness harness;
    harness.makeHost(fileOnly);

    // Everything is in place before the first poll, so one cycle sees it all.
    const auto t0 = sampleDate();
    const std::vector<std::pair<std::string, std::optional<std::chrono::system_clock::time_point>>> listing = {
        {"late.json", t0 + 30s},       {"tie-first.json", t0 + 10s},   {"early.json", t0},
        {"tie-second.json", t0 + 10s}, {"undated.json", std::nullopt}, {"upper.JSON", t0},
        {"notes.txt", t0}};
    for (std::uint64_t n = 1; const auto& entry : listing) harness.writeRequest(sampleEnvelope(n++), entry.first);
    harness.fakeFileSystem->chooseListing(listing);
    harness.host->start();

    ASSERT_TRUE(harness.runUntil([&] { return harness.queuedIDs().size() == 5; }));
    EXPECT_THAT(harness.queuedIDs(),
                ElementsAre(sampleUuid(5), sampleUuid(3), sampleUuid(2), sampleUuid(4), sampleUuid(1)));
    EXPECT_TRUE(harness.fileSystem->exists(harness.requestsDirectory() / "upper.JSON"));
    EXPECT_TRUE(harness.fileSystem->exists(harness.requestsDirectory() / "notes.txt"));
}

TEST(ServiceHostInvalidRequest, IsAnsweredWithTheDecodeErrorAndRemoved) {
    struct Case {
        std::string fileName, content;
        Uuid expectedPromptID;
    };
    const Case cases[] = {
        // The session identifier took identifier 100, so the next random one is 101.
        {"garbage.json", "{not json", uuidNumber(101)},
        {"00000000-0000-4000-8000-00000000001e.json", "[]", sampleUuid(30)},  // a lower-case name
        {bridgeFileName(sampleUuid(21)), R"({"request":)" + encodeCompact(sampleRequest(21)) + "}",
         sampleUuid(21)},  // no creation date
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.fileName);
        ServiceHostHarness harness;
        harness.makeHost(fileOnly)->start();
        const auto file = harness.requestsDirectory() / c.fileName;
        harness.writeFile(file, c.content);

        ASSERT_TRUE(harness.waitForResponse(c.expectedPromptID));
        const auto answer = *harness.response(c.expectedPromptID);
        EXPECT_EQ(answer.errorMessage, std::string(decodeFailureText));
        EXPECT_FALSE(answer.response);
        EXPECT_TRUE(harness.runUntil([&] { return !harness.fileSystem->exists(file); }));
        // Nothing was received as far as the status goes.
        EXPECT_FALSE(harness.host->status().lastPromptReceivedAt);
    }
}

// --- Automation commands --------------------------------------------------------

// A command left from before the start is cleared unapplied; one written
// afterwards answers with its preset, and a session answer makes a rule too.
TEST(ServiceHostAutomationCommand, ResolvesTheQueuedPromptButOnlyOnceStarted) {
    ServiceHostHarness harness;
    harness.makeHost(fileOnly);
    harness.writeRequest(sampleEnvelope(60));
    harness.writeCommand(sampleUuid(60), FlowPromptAutomationPreset::blockOnce);
    harness.host->start();
    ASSERT_TRUE(harness.waitUntilQueued(sampleUuid(60)));
    harness.writeRequest(sampleEnvelope(61, "other.example.org"));  // a flow the rule below does not decide
    ASSERT_TRUE(harness.waitUntilQueued(sampleUuid(61)));
    EXPECT_THAT(harness.queuedIDs(), ElementsAre(sampleUuid(60), sampleUuid(61)));
    EXPECT_FALSE(harness.fileSystem->exists(harness.commandFile()));

    harness.writeCommand(sampleUuid(61), FlowPromptAutomationPreset::blockSession);
    ASSERT_TRUE(harness.waitForResponse(sampleUuid(61)));
    const auto answer = *harness.response(sampleUuid(61));
    ASSERT_TRUE(answer.response);
    EXPECT_EQ(answer.response->action, RuleAction::drop);
    EXPECT_EQ(answer.response->scope, RuleScope::session);
    EXPECT_TRUE(harness.runUntil([&] { return !harness.fileSystem->exists(harness.commandFile()); }));
    EXPECT_THAT(harness.queuedIDs(), ElementsAre(sampleUuid(60)));
}

// --- Teardown ------------------------------------------------------------------------

TEST(ServiceHostTeardown, DestroyingAStartedHostRemovesWhatItPublishedUnlessStoppedForProcessExit) {
    for (const bool processExit : {false, true}) {
        SCOPED_TRACE(processExit ? "stopped for process exit" : "destroyed");
        ServiceHostHarness harness;
        harness.makeHost()->start();
        ASSERT_TRUE(harness.runUntil([&] { return harness.fileSystem->exists(harness.statusFile()); }));
        const auto session = harness.sessionDirectory();
        const auto manifest = harness.container() / "QuillfortPromptAgent.endpoint";
        const auto statusFile = harness.statusFile();
        ASSERT_TRUE(harness.fileSystem->exists(manifest));

        if (processExit) harness.host->stopForProcessExit();
        harness.destroyHost();
        // Files left behind are for the next launch.
        EXPECT_EQ(harness.fileSystem->exists(processExit ? session / "Requests" : session), processExit);
        EXPECT_EQ(harness.fileSystem->exists(manifest), processExit);
        EXPECT_EQ(harness.fileSystem->exists(statusFile), processExit);
    }
}

TEST(ServiceHostTeardown, AHostThatNeverStartedLeavesAnotherAgentsFilesAlone) {
    ServiceHostHarness harness;
    harness.makeHost(fileOnly)->start();
    ASSERT_TRUE(harness.runUntil([&] { return harness.fileSystem->exists(harness.statusFile()); }));
    const auto running = harness.host;

    harness.makeHost();
    harness.destroyHost();
    EXPECT_TRUE(harness.fileSystem->exists(harness.container() / "QuillfortPromptAgent.endpoint"));
    EXPECT_TRUE(harness.fileSystem->exists(harness.statusFile()));
    harness.host = running;
}

// --- Faults ---------------------------------------------------------------------

TEST(ServiceHostWriteFault, IsLoggedAndLaterRequestsAreStillAnswered) {
    for (const bool snapshotFails : {true, false}) {  // else the response file fails
        SCOPED_TRACE(snapshotFails);
        ServiceHostHarness harness;
        harness.makeHost(withDirective("allow-permanent"))->start();
        const auto failing = snapshotFails ? harness.ruleSnapshotFile()
                                           : harness.responsesDirectory() / bridgeFileName(sampleUuid(1));
        harness.fakeFileSystem->failOn(FakeFileSystem::Operation::writeFileAtomically, failing, ENOSPC);

        const auto first = harness.writeRequest(sampleEnvelope(1));
        EXPECT_TRUE(harness.waitForLog(snapshotFails ? "Failed to persist the prompt-resolved shared rule snapshot"
                                                     : "Failed to write prompt bridge response for"));
        EXPECT_TRUE(harness.runUntil([&] { return !harness.fileSystem->exists(first); }));
        // A snapshot that cannot be saved does not hold the answer back.
        if (snapshotFails) {
            EXPECT_TRUE(harness.waitForResponse(sampleUuid(1)));
        }
        EXPECT_FALSE(harness.fileSystem->exists(failing));

        harness.fakeFileSystem->clearFailures();
        harness.writeRequest(sampleEnvelope(2));
        ASSERT_TRUE(harness.waitForResponse(sampleUuid(2)));
        EXPECT_TRUE(harness.response(sampleUuid(2))->response);
        auto snapshot = RuleSnapshotStore(*harness.fileSystem, harness.ruleSnapshotFile()).loadIfPresent();
        ASSERT_TRUE(snapshot && *snapshot);
        ASSERT_THAT((*snapshot)->rules, SizeIs(snapshotFails ? 1 : 2));
        EXPECT_EQ((*snapshot)->rules.back().origin, RuleOrigin::promptResolved);
    }
}

TEST(ServiceHostFileBridge, RemovedRequestsDirectoryIsLoggedOnceWhilePollingGoesOn) {
    ServiceHostHarness harness;
    harness.makeHost(withDirective("allow-once"))->start();
    std::filesystem::remove_all(harness.sessionDirectory());
    const std::string failure = "Failed to enumerate prompt bridge requests: ";
    ASSERT_TRUE(harness.waitForLog(failure));

    const auto listings = [&] { return harness.fakeFileSystem->count(FakeFileSystem::Operation::listDirectory); };
    const auto seen = listings();
    ASSERT_TRUE(harness.runUntil([&] { return listings() >= seen + 3; }));
    EXPECT_EQ(harness.logCount(failure), 1u);

    // Put back, it is polled as before.
    std::filesystem::create_directories(harness.responsesDirectory());
    harness.writeRequest(sampleEnvelope(3));
    EXPECT_TRUE(harness.waitForResponse(sampleUuid(3)));
}

}  // namespace
}  // namespace quillfort
