#include "QuillfortAgent/automation/AgentPreviewPrompts.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/InMemoryUserDefaults.hpp"
#include "tests/testsupport/ModelSamples.hpp"
#include "tests/testsupport/SequentialUuidSource.hpp"

namespace quillfort {
namespace {

namespace Preview = AgentPreviewPrompts;
using Env = std::map<std::string, std::string>;
using Args = std::vector<std::string>;

ProcessInfo process(Env environment, Args arguments = {}) {
    arguments.insert(arguments.begin(), "quillfort-agent");
    return {.environment = std::move(environment), .arguments = std::move(arguments), .processIdentifier = 1};
}

FlowPromptRequest preview(const ProcessInfo& info, const UserDefaults& defaults = InMemoryUserDefaults()) {
    testing::SequentialUuidSource ids;
    return Preview::makePreviewPromptRequest(info, defaults, testing::sampleDate(), ids);
}

// What the agent's option parser is left with: no preview flag, no value of one.
TEST(AgentPreviewPrompts, WithoutAutomationArgumentsDropsFlagsAndTheirValues) {
    using Arguments = std::vector<std::string>;
    const std::pair<Arguments, Arguments> cases[] = {
        {{"agent", "--headless", "--automation-preview-prompt", "--automation-preview-host", "h", "--loopback-port",
          "1"},
         {"agent", "--headless", "--loopback-port", "1"}},
        {{"agent", "--automation-preview-prompt=1", "--automation-preview-hostx"},
         {"agent", "--automation-preview-prompt=1", "--automation-preview-hostx"}},
    };
    for (const auto& [arguments, expected] : cases) EXPECT_EQ(Preview::withoutAutomationArguments(arguments), expected);
}

TEST(AgentPreviewPrompts, QueueCountIsAPositiveNumberOrOne) {
    InMemoryUserDefaults defaults;
    const std::pair<std::string, std::int64_t> cases[] = {{" 3\n", 3}, {"0", 1}, {"-2", 1}, {"3x", 1}};
    for (const auto& [text, expected] : cases) {
        EXPECT_EQ(Preview::previewPromptQueueCount(process({{"QUILLFORT_AGENT_AUTOMATION_PREVIEW_QUEUE_COUNT", text}}),
                                                   defaults),
                  expected)
            << text;
    }
}

// A port past 65,535 falls back to the rule port, which may carry a sign.
TEST(AgentPreviewPrompts, PortAndProtocolFallBack) {
    const auto flow = preview(process({{"QUILLFORT_AGENT_AUTOMATION_PREVIEW_PORT", "70000"},
                                       {"QUILLFORT_AUTOMATION_RULE_PORT", "+8443"},
                                       {"QUILLFORT_AGENT_AUTOMATION_PREVIEW_PROTOCOL", "UDP"}}))
                          .context.flow;
    EXPECT_EQ(flow.port, 8443);
    EXPECT_EQ(flow.remoteEndpoint->port, 8443);
    EXPECT_EQ(flow.transportProtocol, TransportProtocol::udp);
}

}  // namespace
}  // namespace quillfort
