#include "QuillfortAgent/AgentPreviewPrompts.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/InMemoryUserDefaults.hpp"
#include "tests/testsupport/ModelSamples.hpp"
#include "tests/testsupport/SequentialUuidSource.hpp"

namespace quillfort {
namespace {

using ::testing::ElementsAre;
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

TEST(AgentPreviewPrompts, SettingsComeFromEnvironmentThenFlagThenUserDefaults) {
    InMemoryUserDefaults defaults;
    ASSERT_TRUE(defaults.setString("QUILLFORT_AGENT_AUTOMATION_PREVIEW_HOST", "defaults.example"));
    const Args flag{"--automation-preview-host", "flag.example"};
    auto host = [&](Env env, Args args) {
        return Preview::settingValue(Preview::hostSetting, process(env, args), defaults);
    };
    EXPECT_EQ(host({{"QUILLFORT_AGENT_AUTOMATION_PREVIEW_HOST", ""}}, flag), "");
    EXPECT_EQ(host({}, flag), "flag.example");
    EXPECT_EQ(host({}, {"--automation-preview-host"}), "defaults.example");

    EXPECT_EQ(Preview::automationArgumentValue("-x", {"a", "-x", "1", "-x", "2"}), "1");
    EXPECT_EQ(Preview::automationArgumentValue("-x", {"a", "-x"}), std::nullopt);
    EXPECT_EQ(Preview::automationArgumentValue("-x", {"-x=1", "-x", "2"}), "1");
    EXPECT_EQ(Preview::automationArgumentValue("-x", {"-x=", "-x", "2"}), "");
    EXPECT_EQ(Preview::automationArgumentValue("-x", {"-xy", "2"}), std::nullopt);
}

// What the agent's option parser is left with: no preview flag, no value of one.
TEST(AgentPreviewPrompts, WithoutAutomationArgumentsDropsFlagsAndTheirValues) {
    using Arguments = std::vector<std::string>;
    const std::pair<Arguments, Arguments> cases[] = {
        {{"agent", "--headless", "--automation-preview-prompt", "--automation-preview-host", "h", "--loopback-port",
          "1"},
         {"agent", "--headless", "--loopback-port", "1"}},
        {{"agent", "--automation-preview-port=80", "--automation-preview-protocol", "--headless"}, {"agent"}},
        {{"agent", "--headless", "--automation-preview-queue-count"}, {"agent", "--headless"}},
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
    const std::pair<std::string, std::int64_t> cases[] = {{" 3\n", 3}, {"+3", 3}, {"0", 1},  {"-2", 1},
                                                          {"abc", 1},  {"", 1},   {"3x", 1}, {"100000", 100000}};
    for (const auto& [text, expected] : cases) {
        EXPECT_EQ(Preview::previewPromptQueueCount(process({{"QUILLFORT_AGENT_AUTOMATION_PREVIEW_QUEUE_COUNT", text}}),
                                                   defaults),
                  expected)
            << text;
    }
    EXPECT_EQ(Preview::previewPromptQueueCount(process({}), defaults), 1);
}

TEST(AgentPreviewPrompts, PortAndProtocolFallBack) {
    struct Case {
        Env env;
        std::uint16_t port;
        TransportProtocol protocol;
    };
    const Case cases[] = {
        {{}, 443, TransportProtocol::tcp},
        {{{"QUILLFORT_AGENT_AUTOMATION_PREVIEW_PORT", "70000"}, {"QUILLFORT_AUTOMATION_RULE_PORT", "+8443"}},
         8443,
         TransportProtocol::tcp},
        {{{"QUILLFORT_AGENT_AUTOMATION_PREVIEW_PORT", "70000"},
          {"QUILLFORT_AUTOMATION_RULE_PORT", "x"},
          {"QUILLFORT_AGENT_AUTOMATION_PREVIEW_PROTOCOL", "UDP"}},
         443,
         TransportProtocol::udp},
        {{{"QUILLFORT_AGENT_AUTOMATION_PREVIEW_PORT", "53"}, {"QUILLFORT_AGENT_AUTOMATION_PREVIEW_PROTOCOL", "quic"}},
         53,
         TransportProtocol::unknown},
    };
    for (const auto& c : cases) {
        const auto flow = preview(process(c.env)).context.flow;
        EXPECT_EQ(flow.port, c.port);
        EXPECT_EQ(flow.remoteEndpoint->port, c.port);
        EXPECT_EQ(flow.transportProtocol, c.protocol);
    }
}

TEST(AgentPreviewPrompts, SyntheticRequestDescribesAPreviewClientStartedFromZsh) {
    const auto request = preview(
        process({{"QUILLFORT_AUTOMATION_RULE_HOST", " fallback.example "}}, {"--automation-preview-port", "8080"}));
    const auto& context = request.context;
    EXPECT_EQ(context.matchedHostname, " fallback.example ");
    EXPECT_EQ(context.flow.hostText, " fallback.example ");
    EXPECT_EQ(context.flow.extensionGeneratedID, testing::uuidNumber(1).uppercaseString());
    EXPECT_EQ(request.id, testing::uuidNumber(2));
    const auto& client = context.matchedProcessNode->identity;
    EXPECT_EQ(context.flow.sourceProcessAuditToken, client.auditToken);
    EXPECT_THAT(client.argv, ElementsAre("preview-client", "--host", " fallback.example ", "--port", "8080"));
    EXPECT_EQ(client.launchTime, testing::sampleDate());
    ASSERT_EQ(context.ancestorChain.size(), 1u);
    EXPECT_EQ(client.cwd, "/home/quillfort-preview");
    EXPECT_EQ(context.ancestorChain[0].identity.cwd, client.cwd);
    // Whatever the transports would carry for it reads back the same.
    EXPECT_EQ(decodeJson<FlowPromptRequest>(encodeCompact(request)), request);

    EXPECT_EQ(preview(process({})).context.matchedHostname, "preview.quillfort.example");
}

}  // namespace
}  // namespace quillfort
