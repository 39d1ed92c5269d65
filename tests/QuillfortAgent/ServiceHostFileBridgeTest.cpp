#include "QuillfortAgent/QuillfortAgentPromptServiceHost.hpp"

#include <sys/socket.h>

#include <algorithm>
#include <cerrno>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "contracts/PromptAgentStatusStore.hpp"
#include "contracts/RuleSnapshotStore.hpp"
#include "tests/QuillfortAgent/ServiceHostHarness.hpp"

namespace quillfort {
namespace {

using namespace quillfort::testing;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

constexpr std::string_view decodeFailureText = "Failed to decode the Quillfort prompt request.";

std::optional<PromptAgentStatusSnapshot> statusOnDisk(ServiceHostHarness& harness) {
    auto loaded = PromptAgentStatusStore(*harness.fileSystem, harness.statusFile()).loadIfPresent();
    if (!loaded) return std::nullopt;
    return *loaded;
}

// How often the requests directory has been listed so far.
std::ptrdiff_t listings(ServiceHostHarness& harness) {
    const auto calls = harness.fakeFileSystem->calls();
    return std::count_if(calls.begin(), calls.end(), [](const FakeFileSystem::Call& call) {
        return call.operation == FakeFileSystem::Operation::listDirectory;
    });
}

// --- Start-up and status texts ------------------------------------------------

struct StartCase {
    std::string name;
    bool loopbackDisabled;
    bool manifestFails;
    bool portTaken;
    std::string statusText;
    bool listenerReady;
    bool loopbackListenerReady;
};

class ServiceHostStart : public ::testing::TestWithParam<StartCase> {};

TEST_P(ServiceHostStart, SettlesOnTheStatusOfWhatCameUp) {
    const auto& param = GetParam();
    ServiceHostHarness harness;

    // Occupying a port makes the listener fail the way a second listener would.
    int blocker = -1;
    std::uint16_t port = 0;
    if (param.portTaken) {
        blocker = ::socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        ASSERT_EQ(::bind(blocker, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
        ASSERT_EQ(::listen(blocker, 1), 0);
        socklen_t length = sizeof address;
        ::getsockname(blocker, reinterpret_cast<sockaddr*>(&address), &length);
        port = ntohs(address.sin_port);
    }
    Environment environment;
    if (param.loopbackDisabled) environment["QUILLFORT_AGENT_DISABLE_LOOPBACK_LISTENER"] = "1";
    harness.makeHost({.environment = environment, .loopbackPort = port});
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

    EXPECT_EQ(harness.logged("Skipping the loopback prompt listener because automation explicitly disabled it "
                             "for this QuillfortAgent launch."),
              param.loopbackDisabled);
    EXPECT_EQ(harness.logged("Failed to publish prompt listener endpoint: "), param.manifestFails);
    EXPECT_EQ(harness.logged("Failed to start the loopback prompt listener: "), param.portTaken);
    if (param.loopbackDisabled || param.portTaken) {
        EXPECT_EQ(harness.host->loopbackPort(), 0);
    }
    if (blocker >= 0) ::close(blocker);
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

TEST(ServiceHost, PublishesTheManifestOfItsOwnSession) {
    ServiceHostHarness harness;
    harness.startHost();

    auto manifest = QuillfortPromptEndpointStore::load(*harness.fileSystem, harness.home.path());
    ASSERT_TRUE(manifest);
    ASSERT_TRUE(*manifest);
    EXPECT_EQ((*manifest)->transport, QuillfortPromptBridgeTransportKind::fileRequestResponse);
    EXPECT_EQ((*manifest)->sessionIdentifier, harness.host->sessionIdentifier());
    EXPECT_EQ((*manifest)->requestsDirectoryPath, harness.requestsDirectory().string());
    EXPECT_EQ((*manifest)->responsesDirectoryPath, harness.responsesDirectory().string());
    EXPECT_EQ(harness.host->sessionIdentifier(), uuidNumber(100).uppercaseString());
    EXPECT_TRUE(harness.logged("Published prompt listener manifest at " +
                               (harness.container() / "QuillfortPromptAgent.endpoint").string() +
                               " for file transport session " + harness.host->sessionIdentifier() + ". requests="));
}

TEST(ServiceHost, StatusWriteFailureStillUpdatesMemoryAndCoordinator) {
    ServiceHostHarness harness;
    harness.makeHost({.environment = {{"QUILLFORT_AGENT_DISABLE_LOOPBACK_LISTENER", "1"}}});
    harness.fakeFileSystem->failOn(FakeFileSystem::Operation::writeFileAtomically, harness.statusFile(), EROFS);
    harness.host->start();

    const std::string expected = "Prompt manifest published. Loopback listener disabled for automation.";
    EXPECT_TRUE(harness.waitForLog("Failed to persist the prompt-agent status snapshot: "));
    EXPECT_EQ(harness.host->status().statusText, expected);
    EXPECT_TRUE(harness.runUntil([&] { return harness.coordinator->listenerStatus().value() == expected; }));
    EXPECT_FALSE(harness.fileSystem->exists(harness.statusFile()));
}

// --- Requests answered by an automation directive -----------------------------

TEST(ServiceHostFileBridge, AutomationDirectiveAnswersAtOnceAndMergesTheRule) {
    ServiceHostHarness harness;
    harness.startHost({.environment = {{"QUILLFORT_AGENT_AUTOMATION_RESPONSE", "allow-permanent"}}});
    const auto requestFile = harness.writeRequest(sampleEnvelope(1));

    ASSERT_TRUE(harness.waitForResponse(sampleUuid(1)));
    const auto answer = *harness.response(sampleUuid(1));
    EXPECT_EQ(answer.promptID, sampleUuid(1));
    EXPECT_FALSE(answer.errorMessage);
    ASSERT_TRUE(answer.response);
    EXPECT_EQ(answer.response->action, RuleAction::allow);
    EXPECT_EQ(answer.response->scope, RuleScope::persistent);
    EXPECT_TRUE(harness.runUntil([&] { return !harness.fileSystem->exists(requestFile); }));

    auto snapshot = RuleSnapshotStore(*harness.fileSystem, harness.ruleSnapshotFile()).loadIfPresent();
    ASSERT_TRUE(snapshot && *snapshot);
    ASSERT_THAT((*snapshot)->rules, SizeIs(1));
    EXPECT_EQ((*snapshot)->rules[0].origin, RuleOrigin::promptResolved);
    EXPECT_EQ((*snapshot)->rules[0].priority, 10000);

    EXPECT_TRUE(harness.logged("Auto-resolved prompt " + sampleUuid(1).uppercaseString() +
                               " using preset allow-permanent."));
    // Answered without a window; the coordinator only records it.
    EXPECT_TRUE(harness.runUntil([&] { return harness.coordinator->recentResponses().value().size() == 1; }));
    EXPECT_THAT(harness.queuedIDs(), IsEmpty());
    const auto status = harness.host->status();
    EXPECT_TRUE(status.lastPromptReceivedAt);
    EXPECT_TRUE(status.lastPromptResolvedAt);
}

TEST(ServiceHostFileBridge, FocusElsewhereLeavesThePromptToTheCoordinator) {
    ServiceHostHarness harness;
    harness.startHost({.environment = {{"QUILLFORT_AGENT_AUTOMATION_RESPONSE", "allow-once"},
                                       {"QUILLFORT_AUTOMATION_RULE_HOST", "other.example.org"}}});
    // The file's name is not the prompt's id: the answer still goes under the id.
    const auto requestFile = harness.writeRequest(sampleEnvelope(2), "client-chosen-name.json");

    ASSERT_TRUE(harness.waitUntilQueued(sampleUuid(2)));
    EXPECT_FALSE(harness.response(sampleUuid(2)));
    EXPECT_TRUE(harness.fileSystem->exists(requestFile));
    // Still in the directory while it waits, the file is not handed on again by
    // later polls: one more listing and what follows it on the serial queue, so
    // a second hand-off would be waiting on the main thread by then.
    const auto seen = listings(harness);
    ASSERT_TRUE(harness.runUntil([&] { return listings(harness) > seen; }));
    const auto later = harness.fakeFileSystem->calls().size();
    ASSERT_TRUE(harness.runUntil([&] { return harness.fakeFileSystem->calls().size() > later + 2; }));
    harness.mainContext.poll();
    EXPECT_EQ(harness.logCount("Queued prompt " + sampleUuid(2).uppercaseString() + " for api.example.com."), 1u);

    harness.coordinator->resolvePrompt(sampleUuid(2), AgentPromptDecisionPreset::blockOnce);
    ASSERT_TRUE(harness.waitForResponse(sampleUuid(2)));
    const auto answer = *harness.response(sampleUuid(2));
    ASSERT_TRUE(answer.response);
    EXPECT_EQ(answer.response->action, RuleAction::drop);
    EXPECT_EQ(answer.response->scope, RuleScope::temporary);
    EXPECT_TRUE(harness.runUntil([&] { return !harness.fileSystem->exists(requestFile); }));
    // A one-time answer makes no rule, so the snapshot is not even created.
    EXPECT_FALSE(harness.fileSystem->exists(harness.ruleSnapshotFile()));
}

// --- What is taken from the requests directory, and in which order -----------

TEST(ServiceHostFileBridge, TakesJsonFilesEarliestFirstWithUnknownDatesFirstAndTiesInListingOrder) {
    ServiceHostHarness harness;
    harness.makeHost({.environment = {{"QUILLFORT_AGENT_DISABLE_LOOPBACK_LISTENER", "1"}}});

    // Everything is in place before the first poll, so one cycle sees it all.
    const auto t0 = sampleDate();
    harness.writeRequest(sampleEnvelope(1), "late.json");
    harness.writeRequest(sampleEnvelope(2), "early.json");
    harness.writeRequest(sampleEnvelope(3), "undated.json");
    harness.writeRequest(sampleEnvelope(4), "tie-first.json");
    harness.writeRequest(sampleEnvelope(5), "tie-second.json");
    harness.writeRequest(sampleEnvelope(6), "upper.JSON");
    harness.writeFile(harness.requestsDirectory() / "notes.txt", "not a request");
    harness.fakeFileSystem->chooseListing({{"late.json", t0 + 30s},
                                           {"tie-first.json", t0 + 10s},
                                           {"early.json", t0},
                                           {"tie-second.json", t0 + 10s},
                                           {"undated.json", std::nullopt},
                                           {"upper.JSON", t0},
                                           {"notes.txt", t0}});
    harness.host->start();

    ASSERT_TRUE(harness.runUntil([&] { return harness.queuedIDs().size() == 5; }));
    EXPECT_THAT(harness.queuedIDs(),
                ElementsAre(sampleUuid(3), sampleUuid(2), sampleUuid(4), sampleUuid(5), sampleUuid(1)));
    EXPECT_TRUE(harness.fileSystem->exists(harness.requestsDirectory() / "upper.JSON"));
    EXPECT_TRUE(harness.fileSystem->exists(harness.requestsDirectory() / "notes.txt"));
}

TEST(ServiceHostInvalidRequest, IsAnsweredWithTheDecodeErrorAndRemoved) {
    struct Case {
        std::string fileName;
        std::string content;
        Uuid expectedPromptID;
    };
    const Case cases[] = {
        // The session identifier took identifier 100, so the next random one is 101.
        {"garbage.json", "{not json", uuidNumber(101)},
        {bridgeFileName(sampleUuid(20)), "[]", sampleUuid(20)},
        {"00000000-0000-4000-8000-00000000001e.json", "", sampleUuid(30)},  // a lower-case name
        {bridgeFileName(sampleUuid(21)), R"({"request":)" + encodeCompact(sampleRequest(21)) + "}",
         sampleUuid(21)},  // no creation date
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.fileName);
        ServiceHostHarness harness;
        harness.startHost({.environment = {{"QUILLFORT_AGENT_DISABLE_LOOPBACK_LISTENER", "1"}}});
        const auto file = harness.requestsDirectory() / c.fileName;
        harness.writeFile(file, c.content);

        ASSERT_TRUE(harness.waitForResponse(c.expectedPromptID));
        const auto answer = *harness.response(c.expectedPromptID);
        EXPECT_EQ(answer.errorMessage, std::string(decodeFailureText));
        EXPECT_FALSE(answer.response);
        EXPECT_TRUE(harness.runUntil([&] { return !harness.fileSystem->exists(file); }));
        EXPECT_TRUE(harness.waitForLog("Failed to decode prompt bridge request: "));
        // Nothing was received as far as the status goes.
        EXPECT_FALSE(harness.host->status().lastPromptReceivedAt);
        EXPECT_FALSE(harness.host->status().lastPromptResolvedAt);
    }
}

// --- Automation commands --------------------------------------------------------

TEST(ServiceHostAutomationCommand, ResolvesTheQueuedPromptWithThePresetOfTheSamePosition) {
    struct Case {
        FlowPromptAutomationPreset preset;
        RuleAction action;
        RuleScope scope;
    };
    for (const auto& c : {Case{FlowPromptAutomationPreset::allowOnce, RuleAction::allow, RuleScope::temporary},
                          Case{FlowPromptAutomationPreset::allowSession, RuleAction::allow, RuleScope::session},
                          Case{FlowPromptAutomationPreset::blockPermanent, RuleAction::drop, RuleScope::persistent}}) {
        SCOPED_TRACE(rawValue(c.preset));
        ServiceHostHarness harness;
        harness.startHost({.environment = {{"QUILLFORT_AGENT_DISABLE_LOOPBACK_LISTENER", "1"}}});
        harness.writeRequest(sampleEnvelope(40));
        ASSERT_TRUE(harness.waitUntilQueued(sampleUuid(40)));

        harness.writeCommand(sampleUuid(40), c.preset);
        ASSERT_TRUE(harness.waitForResponse(sampleUuid(40)));
        const auto answer = *harness.response(sampleUuid(40));
        ASSERT_TRUE(answer.response);
        EXPECT_EQ(answer.response->action, c.action);
        EXPECT_EQ(answer.response->scope, c.scope);
        EXPECT_FALSE(harness.fileSystem->exists(harness.commandFile()));
        EXPECT_TRUE(harness.logged("Applying prompt automation command for " + sampleUuid(40).uppercaseString() +
                                   " using preset " + std::string(rawValue(c.preset)) + "."));
        // Session answers are kept in the shared snapshot as well as lasting ones.
        EXPECT_EQ(harness.fileSystem->exists(harness.ruleSnapshotFile()), c.scope != RuleScope::temporary);
    }
}

TEST(ServiceHostAutomationCommand, CommandPresentAtStartIsClearedUnapplied) {
    ServiceHostHarness harness;
    harness.makeHost({.environment = {{"QUILLFORT_AGENT_DISABLE_LOOPBACK_LISTENER", "1"}}});
    harness.writeRequest(sampleEnvelope(60));
    harness.writeCommand(sampleUuid(60), FlowPromptAutomationPreset::blockOnce);
    harness.host->start();

    ASSERT_TRUE(harness.waitUntilQueued(sampleUuid(60)));
    harness.writeRequest(sampleEnvelope(61));
    ASSERT_TRUE(harness.waitUntilQueued(sampleUuid(61)));
    EXPECT_THAT(harness.queuedIDs(), ElementsAre(sampleUuid(60), sampleUuid(61)));
    EXPECT_FALSE(harness.logged("Applying prompt automation command"));
}

// --- Presentation state -----------------------------------------------------------

// The queue's order, and entries, are the status publisher's own tests; here,
// that every change of the coordinator's queue reaches the status, not only the first.
TEST(ServiceHostStatus, FollowsTheCoordinatorsQueue) {
    ServiceHostHarness harness;
    harness.startHost({.environment = {{"QUILLFORT_AGENT_DISABLE_LOOPBACK_LISTENER", "1"}}});
    harness.writeRequest(sampleEnvelope(70));
    harness.writeRequest(sampleEnvelope(71));

    ASSERT_TRUE(harness.runUntil([&] { return harness.host->status().activePromptCount == 2; }));
    EXPECT_EQ(harness.host->status().activePrompt->promptID, harness.queuedIDs().front());
    EXPECT_TRUE(harness.runUntil([&] { return statusOnDisk(harness) == harness.host->status(); }));

    harness.coordinator->resolvePrompt(harness.queuedIDs().front(), AgentPromptDecisionPreset::allowOnce);
    ASSERT_TRUE(harness.runUntil([&] { return harness.host->status().activePromptCount == 1; }));
    EXPECT_EQ(harness.host->status().activePrompt->promptID, harness.queuedIDs().front());
}

AgentPromptSession sessionFor(FlowPromptRequest request, AgentPromptDecisionPreset preset) {
    AgentPromptSession session;
    session.request = std::move(request);
    session.selectedPreset = preset;
    return session;
}

TEST(ServiceHostPromptSnapshot, ShowsHostPortAndProcessAsPeopleReadThem) {
    struct Case {
        std::string name;
        std::function<void(AgentPromptSession&)> change;
        std::string host;
        std::optional<std::uint16_t> port;
        std::string processDisplayTitle;
    };
    const Case cases[] = {
        {"Sample", [](AgentPromptSession&) {}, "api.example.com", 443, "curl"},
        {"BundleIdentifierWins",
             [](AgentPromptSession& s) { s.request.context.matchedProcessNode->identity.bundleID = "com.x.App"; },
             "api.example.com", 443, "com.x.App"},
        {"EmptyBundleIdentifierFallsBackToPath",
             [](AgentPromptSession& s) {
                 s.request.context.matchedProcessNode->identity.bundleID = "";
                 s.request.context.matchedProcessNode->identity.executablePath = "/opt/tools/bin/";
             },
             "api.example.com", 443, "bin"},
        {"NoProcess",
             [](AgentPromptSession& s) { s.request.context.matchedProcessNode.reset(); }, "api.example.com",
             443, "Unknown Process"},
        {"EmptyPath",
             [](AgentPromptSession& s) { s.request.context.matchedProcessNode->identity.executablePath = ""; },
             "api.example.com", 443, "Unknown Process"},
        {"RemoteEndpointOnly",
             [](AgentPromptSession& s) {
                 s.request.context.matchedHostname.reset();
                 s.request.context.flow.hostText.reset();
                 s.request.context.flow.port.reset();
             },
             "93.184.216.34", 443, "curl"},
        {"PresentEmptyHostIsKept",
             [](AgentPromptSession& s) { s.request.context.matchedHostname = ""; }, "", 443, "curl"},
        {"NothingKnown",
             [](AgentPromptSession& s) {
                 s.request.context.matchedHostname.reset();
                 s.request.context.flow.hostText.reset();
                 s.request.context.flow.port.reset();
                 s.request.context.flow.remoteEndpoint.reset();
             },
             "unknown-host", std::nullopt, "curl"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        auto session = sessionFor(sampleRequest(1), AgentPromptDecisionPreset::allowOnce);
        c.change(session);

        const auto queued = QuillfortAgentPromptServiceHost::makeQueuedPromptSnapshot(session);
        EXPECT_EQ(queued.promptID, sampleUuid(1));
        EXPECT_EQ(queued.host, c.host);
        EXPECT_EQ(queued.port, c.port);
        EXPECT_EQ(queued.processDisplayTitle, c.processDisplayTitle);

        const auto active = QuillfortAgentPromptServiceHost::makeActivePromptSnapshot(session, 3);
        EXPECT_EQ(active.queueCount, 3);
        EXPECT_EQ(active.host, queued.host);
        EXPECT_EQ(active.previewText, queued.previewText);
    }
}

// --- Teardown ------------------------------------------------------------------------

TEST(ServiceHostTeardown, DestroyingAStartedHostRemovesWhatItPublishedUnlessStoppedForProcessExit) {
    for (const bool processExit : {false, true}) {
        SCOPED_TRACE(processExit ? "stopped for process exit" : "destroyed");
        ServiceHostHarness harness;
        harness.startHost();
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
    harness.startHost({.environment = {{"QUILLFORT_AGENT_DISABLE_LOOPBACK_LISTENER", "1"}}});
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
    struct Case {
        bool snapshot;  // the rule snapshot fails, else the response file
        int error;
        std::string logged;
    };
    for (const auto& c :
         {Case{true, ENOSPC, "Failed to persist the prompt-resolved shared rule snapshot in the agent helper: "},
          Case{false, EACCES,
               "Failed to write prompt bridge response for " + sampleUuid(1).uppercaseString() + ": "}}) {
        SCOPED_TRACE(c.logged);
        ServiceHostHarness harness;
        harness.startHost({.environment = {{"QUILLFORT_AGENT_AUTOMATION_RESPONSE", "allow-permanent"},
                                           {"QUILLFORT_AGENT_DISABLE_LOOPBACK_LISTENER", "1"}}});
        const auto failing =
            c.snapshot ? harness.ruleSnapshotFile() : harness.responsesDirectory() / bridgeFileName(sampleUuid(1));
        harness.fakeFileSystem->failOn(FakeFileSystem::Operation::writeFileAtomically, failing, c.error);

        const auto first = harness.writeRequest(sampleEnvelope(1));
        EXPECT_TRUE(harness.waitForLog(c.logged));
        EXPECT_TRUE(harness.runUntil([&] { return !harness.fileSystem->exists(first); }));
        // A snapshot that cannot be saved does not hold the answer back.
        if (c.snapshot) {
            EXPECT_TRUE(harness.waitForResponse(sampleUuid(1)));
        }
        EXPECT_FALSE(harness.fileSystem->exists(failing));

        harness.fakeFileSystem->clearFailures();
        harness.writeRequest(sampleEnvelope(2));
        ASSERT_TRUE(harness.waitForResponse(sampleUuid(2)));
        auto snapshot = RuleSnapshotStore(*harness.fileSystem, harness.ruleSnapshotFile()).loadIfPresent();
        ASSERT_TRUE(snapshot && *snapshot);
        EXPECT_THAT((*snapshot)->rules, SizeIs(c.snapshot ? 1 : 2));
    }
}

TEST(ServiceHostFileBridge, RemovedRequestsDirectoryIsLoggedOnceWhilePollingGoesOn) {
    ServiceHostHarness harness;
    harness.startHost({.environment = {{"QUILLFORT_AGENT_AUTOMATION_RESPONSE", "allow-once"},
                                       {"QUILLFORT_AGENT_DISABLE_LOOPBACK_LISTENER", "1"}}});
    std::filesystem::remove_all(harness.sessionDirectory());
    const std::string failure = "Failed to enumerate prompt bridge requests: ";
    ASSERT_TRUE(harness.waitForLog(failure));

    const auto seen = listings(harness);
    ASSERT_TRUE(harness.runUntil([&] { return listings(harness) >= seen + 3; }));
    const auto records = harness.logs.records();
    EXPECT_EQ(std::count_if(records.begin(), records.end(),
                            [&](const auto& record) { return record.message.starts_with(failure); }),
              1);

    // Put back, it is polled as before.
    std::filesystem::create_directories(harness.responsesDirectory());
    harness.writeRequest(sampleEnvelope(3));
    EXPECT_TRUE(harness.waitForResponse(sampleUuid(3)));
}

}  // namespace
}  // namespace quillfort
