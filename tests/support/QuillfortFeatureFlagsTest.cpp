#include "support/QuillfortFeatureFlags.hpp"

#include <gtest/gtest.h>

namespace quillfort {
namespace {

ProcessInfo withEnvironment(std::map<std::string, std::string> environment) {
    ProcessInfo info;
    info.environment = std::move(environment);
    return info;
}

struct SwitchCase {
    std::string value;
    bool enabled;
};

// The three on/off switches accept exactly "1" and nothing that merely looks like it.
TEST(QuillfortFeatureFlags, SwitchesAreOnOnlyForExactlyOne) {
    const SwitchCase cases[] = {{"1", true},     {"1 ", false}, {" 1", false}, {"01", false},
                                {"TRUE", false}, {"true", false}, {"yes", false}, {"", false}};
    for (const auto& c : cases) {
        SCOPED_TRACE("value '" + c.value + "'");
        const auto flags = QuillfortFeatureFlags::resolve(withEnvironment({
            {"QUILLFORT_AUTOMATION_BRIDGE", c.value},
            {"QUILLFORT_VERBOSE_LOGGING", c.value},
            {"QUILLFORT_STUB_EXTENSIONS", c.value},
        }));
        EXPECT_EQ(flags.automationBridgeEnabled, c.enabled);
        EXPECT_EQ(flags.verboseLoggingEnabled, c.enabled);
        EXPECT_EQ(flags.stubExtensionsEnabled, c.enabled);
    }
}

TEST(QuillfortFeatureFlags, ShadowDropIsOffOnlyForTrimmedFoldedNegatives) {
    const SwitchCase cases[] = {
        {" No\n", false}, {"0", false},       {"FALSE", false}, {"\tfalse  ", false},
        {"no\xC2\xA0", false},  // trailing no-break space
        {"off", true},    {"", true},         {"   ", true},     {"1", true},
        {"nope", true},   {"n o", true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE("value '" + c.value + "'");
        const auto flags =
            QuillfortFeatureFlags::resolve(withEnvironment({{"QUILLFORT_SHADOW_PROMPT_DROP", c.value}}));
        EXPECT_EQ(flags.shadowPromptDropEnabled, c.enabled);
    }
}

TEST(QuillfortFeatureFlags, AutomationResponseIsTrimmedAndBlankMeansAbsent) {
    struct Case {
        std::string value;
        std::optional<std::string> expected;
    };
    const Case cases[] = {
        {"  allow-once  ", "allow-once"},
        {"\nblock-permanent\r\n", "block-permanent"},
        {"not a preset", "not a preset"},  // not checked against the presets here
        {"   ", std::nullopt},
        {"", std::nullopt},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE("value '" + c.value + "'");
        const auto flags = QuillfortFeatureFlags::resolve(
            withEnvironment({{"QUILLFORT_AGENT_AUTOMATION_RESPONSE", c.value}}));
        EXPECT_EQ(flags.automationPromptResponseRawValue, c.expected);
        EXPECT_FALSE(flags.automationBridgeEnabled);  // independent of the bridge switch
    }
}

// Verbose logging on tells its key from the stub switch's; every other value is
// the default of an unset variable.
TEST(QuillfortFeatureFlags, UnsetVariablesGiveDefaultsAndAbsentResponseIsLeftOut) {
    auto flags = QuillfortFeatureFlags::resolve(withEnvironment({{"QUILLFORT_VERBOSE_LOGGING", "1"}}));
    EXPECT_EQ(encodeCompact(flags),
              R"({"automationBridgeEnabled":false,"shadowPromptDropEnabled":true,)"
              R"("verboseLoggingEnabled":true,"stubExtensionsEnabled":false})");
    flags.automationPromptResponseRawValue = "deny-session";
    EXPECT_EQ(decodeJson<QuillfortFeatureFlags>(encodeCompact(flags)), flags);
}

}  // namespace
}  // namespace quillfort
