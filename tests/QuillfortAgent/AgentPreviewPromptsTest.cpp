#include "QuillfortAgent/AgentPreviewPrompts.hpp"

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

TEST(AgentPreviewPrompts, OnlyTheDigitOneOrTheBareFlagRequestsPreviews) {
    InMemoryUserDefaults none;
    InMemoryUserDefaults one;
    ASSERT_TRUE(one.setString("QUILLFORT_AGENT_AUTOMATION_PREVIEW_PROMPT", "1"));
    EXPECT_FALSE(
        Preview::previewPromptRequested(process({{"QUILLFORT_AGENT_AUTOMATION_PREVIEW_PROMPT", "true"}}), none));
    EXPECT_TRUE(Preview::previewPromptRequested(process({{"QUILLFORT_AGENT_AUTOMATION_PREVIEW_PROMPT", "1"}}), none));
    EXPECT_TRUE(Preview::previewPromptRequested(process({}, {"--automation-preview-prompt"}), none));
    EXPECT_TRUE(Preview::previewPromptRequested(process({{"QUILLFORT_AGENT_AUTOMATION_PREVIEW_PROMPT", "0"}}), one));
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

TEST(AgentPreviewPrompts, PortAndProtocolFallBack) {
    struct Case {
        Env env;
        std::uint16_t port;
        TransportProtocol protocol;
    };
    const Case cases[] = {
        {{{"QUILLFORT_AGENT_AUTOMATION_PREVIEW_PORT", "70000"},
          {"QUILLFORT_AUTOMATION_RULE_PORT", "+8443"},
          {"QUILLFORT_AGENT_AUTOMATION_PREVIEW_PROTOCOL", "UDP"}},
         8443,
         TransportProtocol::udp},
    };
    for (const auto& c : cases) {
        const auto flow = preview(process(c.env)).context.flow;
        EXPECT_EQ(flow.port, c.port);
        EXPECT_EQ(flow.remoteEndpoint->port, c.port);
        EXPECT_EQ(flow.transportProtocol, c.protocol);
    }
}

}  // namespace
}  // namespace quillfort
