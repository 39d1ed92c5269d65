#include "tools/StatusFormatting.hpp"

#include <gtest/gtest.h>

#include "tests/testsupport/ModelSamples.hpp"

namespace quillfort {
namespace {

using namespace std::chrono_literals;

PromptAgentStatusSnapshot busyStatus() {
    PromptAgentStatusSnapshot status;
    status.updatedAt = testing::sampleDate();
    status.listenerReady = true;
    status.manifestPublished = true;
    status.lastPromptReceivedAt = testing::sampleDate() - 90s;
    status.statusText = "Prompt bridge ready.";
    status.promptWindowVisible = true;
    status.activePromptCount = 2;
    status.queuedPrompts = {
        {testing::sampleUuid(1), "api.example.com", 443, "curl", "allow persistent Allow curl"},
        {testing::sampleUuid(2), "::1", 22, "ssh", "Temporary drop decision"},
    };
    status.activePrompt =
        PromptAgentActivePromptSnapshot{testing::sampleUuid(1), "api.example.com", 443, 2, "curl", "allow"};
    return status;
}

TEST(StatusFormatting, ShowsStateTimesAndQueueWithTheActivePromptMarked) {
    EXPECT_EQ(StatusFormatting::formatStatus(busyStatus(), testing::sampleDate() + 5s),
              "Quillfort agent: Prompt bridge ready.\n"
              "\n"
              "Updated:               2026-03-01T12:00:00Z (5s ago)\n"
              "Prompt listener:       ready\n"
              "Loopback listener:     not ready\n"
              "Manifest:              published\n"
              "Last prompt received:  2026-03-01T11:58:30Z (1m ago)\n"
              "Last prompt resolved:  never\n"
              "Prompt window:         visible\n"
              "Active prompts:        2\n"
              "\n"
              "Queue (2):\n"
              "   PROMPT                                DESTINATION          PROCESS  PREVIEW\n"
              "*  00000000-0000-4000-8000-000000000001  api.example.com:443  curl     allow persistent Allow curl\n"
              "   00000000-0000-4000-8000-000000000002  [::1]:22             ssh      Temporary drop decision\n"
              "* on screen\n");
}

TEST(StatusFormatting, EmptyQueueSaysNoPromptsWaiting) {
    PromptAgentStatusSnapshot status = busyStatus();
    status.queuedPrompts.clear();
    const std::string text = StatusFormatting::formatStatus(status, testing::sampleDate());
    EXPECT_TRUE(text.ends_with("\nNo prompts waiting.\n")) << text;
}

TEST(StatusFormatting, AgeIsCountedInTheLargestWholeUnit) {
    const std::pair<std::chrono::seconds, std::string_view> cases[] = {
        {0s, "just now"},     {1s, "1s ago"},       {59s, "59s ago"},      {60s, "1m ago"},
        {3599s, "59m ago"},   {3600s, "1h ago"},    {86399s, "23h ago"},   {86400s, "1d ago"},
    };
    for (const auto& [age, text] : cases)
        EXPECT_EQ(StatusFormatting::ageText(testing::sampleDate() - age, testing::sampleDate()), text) << age.count();
    EXPECT_EQ(StatusFormatting::destinationText("api.example.com", std::nullopt), "api.example.com");
}

// The running agent is the one holding the lock; a file it has not written
// since it started, or one left without any agent, is called out.
TEST(StatusFormatting, StaleStatusFileIsCalledOut) {
    const Date written = testing::sampleDate();
    using Agent = RunningAgent::Agent;
    const std::pair<std::optional<Agent>, std::optional<std::string>> cases[] = {
        {Agent{4711, written - 60s}, std::nullopt},
        {Agent{4711, written + 2s}, std::nullopt},  // within what /proc's start times can tell apart
        {Agent{4711, std::nullopt}, std::nullopt},
        {Agent{4711, written + 60s}, "Out of date: this status file (2026-03-01T12:00:00Z) predates agent pid 4711."},
        {std::nullopt, "No agent runs: this status file is what one left at 2026-03-01T12:00:00Z."},
    };
    for (const auto& [agent, note] : cases) EXPECT_EQ(StatusFormatting::staleStatusNote(written, agent), note);
}

}  // namespace
}  // namespace quillfort
