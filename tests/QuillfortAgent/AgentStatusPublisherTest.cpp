#include "QuillfortAgent/publishing/AgentStatusPublisher.hpp"

#include <atomic>
#include <functional>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/QuillfortAgent/ServiceHostHarness.hpp"

namespace quillfort {
namespace {

using namespace quillfort::testing;
using ::testing::ElementsAre;
using ::testing::Field;

AgentPromptSession queuedSession(std::uint64_t n, AgentPromptDecisionPreset preset) {
    AgentPromptSession session;
    session.request = sampleRequest(n, "host" + std::to_string(n) + ".example.com");
    session.selectedPreset = preset;
    return session;
}

// The per-session cache must never show an entry older than its session: a
// changed choice shows at once, answered prompts leave, and the order is the
// queue's.
TEST(AgentStatusPublisher, QueueEntriesFollowEveryChangeOfTheirSession) {
    TemporaryDirectory home;
    auto fileSystem = defaultFileSystem();
    auto clock = std::make_shared<SampleClock>();
    AgentStatusPublisher publisher(PromptAgentStatusStore(*fileSystem, home.path() / "status.json"), clock,
                                   PromptAgentStatusSnapshot{});
    const auto previewOf = [](const AgentPromptSession& session) {
        return AgentStatusPublisher::makeQueuedPromptSnapshot(session).previewText;
    };
    const auto previews = [&] {
        std::vector<std::string> texts;
        for (const auto& entry : publisher.snapshot().queuedPrompts) texts.push_back(entry.previewText);
        return texts;
    };

    std::vector<AgentPromptSession> sessions{queuedSession(1, AgentPromptDecisionPreset::allowOnce),
                                             queuedSession(2, AgentPromptDecisionPreset::allowOnce),
                                             queuedSession(3, AgentPromptDecisionPreset::blockOnce)};
    publisher.publishPresentation(sessions, true);
    EXPECT_THAT(previews(), ElementsAre("Temporary allow decision", "Temporary allow decision",
                                        "Temporary drop decision"));

    sessions[1].selectedPreset = AgentPromptDecisionPreset::allowSession;
    publisher.publishPresentation(sessions, true);
    EXPECT_THAT(previews(), ElementsAre("Temporary allow decision", previewOf(sessions[1]), "Temporary drop decision"));
    EXPECT_EQ(previewOf(sessions[1]), "allow session " + sessions[1].suggestedRule()->name);

    sessions.erase(sessions.begin());
    sessions.push_back(queuedSession(1, AgentPromptDecisionPreset::blockSession));  // same id, asked again
    publisher.publishPresentation(sessions, false);
    const auto status = publisher.snapshot();
    EXPECT_THAT(status.queuedPrompts,
                ElementsAre(Field(&PromptAgentQueuedPromptSnapshot::promptID, sampleUuid(2)),
                            Field(&PromptAgentQueuedPromptSnapshot::promptID, sampleUuid(3)),
                            Field(&PromptAgentQueuedPromptSnapshot::promptID, sampleUuid(1))));
    EXPECT_EQ(status.queuedPrompts.back().previewText, previewOf(sessions.back()));
    ASSERT_TRUE(status.activePrompt);
    EXPECT_EQ(status.activePrompt->promptID, sampleUuid(2));
    EXPECT_EQ(status.activePrompt->queueCount, 3);
    EXPECT_FALSE(status.promptWindowVisible);

    // Every change stamps the snapshot with the time it was made.
    const auto before = publisher.snapshot().updatedAt;
    clock->at = clock->at.load() + std::chrono::seconds(5);
    // Stopping with a flush leaves exactly the newest snapshot on disk.
    publisher.publish([](PromptAgentStatusSnapshot& s) { s.statusText = "last"; });
    EXPECT_EQ(publisher.snapshot().updatedAt, before + std::chrono::seconds(5));
    publisher.stop(/*flushPending=*/true);
    auto onDisk = PromptAgentStatusStore(*fileSystem, home.path() / "status.json").loadIfPresent();
    ASSERT_TRUE(onDisk && *onDisk);
    EXPECT_EQ(**onDisk, publisher.snapshot());
}

// What the status file names of a prompt, for people and the tool to read.
TEST(AgentStatusPublisher, ShowsHostPortAndProcessAsPeopleReadThem) {
    struct Case {
        std::string name;
        std::function<void(ProcessNode&)> changeProcess;
        bool knowsNothing;  // no process, no host, no port
        std::string host;
        std::optional<std::uint16_t> port;
        std::string processDisplayTitle;
    };
    const Case cases[] = {
        {"BundleIdentifierWins", [](ProcessNode& p) { p.identity.bundleID = "com.x.App"; }, false, "host1.example.com",
         443, "com.x.App"},
        {"EmptyBundleIdentifierFallsBackToPath",
         [](ProcessNode& p) {
             p.identity.bundleID = "";
             p.identity.executablePath = "/opt/tools/bin/";
         },
         false, "host1.example.com", 443, "bin"},
        {"NothingKnown", [](ProcessNode&) {}, true, "unknown-host", std::nullopt, "Unknown Process"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        auto session = queuedSession(1, AgentPromptDecisionPreset::allowOnce);
        auto& context = session.request.context;
        c.changeProcess(*context.matchedProcessNode);
        if (c.knowsNothing) {
            context.matchedProcessNode.reset();
            context.matchedHostname.reset();
            context.flow.hostText.reset();
            context.flow.port.reset();
            context.flow.remoteEndpoint.reset();
        }
        const auto queued = AgentStatusPublisher::makeQueuedPromptSnapshot(session);
        EXPECT_EQ(queued, (PromptAgentQueuedPromptSnapshot{.promptID = sampleUuid(1),
                                                           .host = c.host,
                                                           .port = c.port,
                                                           .processDisplayTitle = c.processDisplayTitle,
                                                           .previewText = "Temporary allow decision"}));
    }
}

}  // namespace
}  // namespace quillfort
