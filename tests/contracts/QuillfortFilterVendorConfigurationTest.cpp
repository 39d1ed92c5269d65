#include "contracts/QuillfortFilterVendorConfiguration.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "tests/testsupport/SequentialUuidSource.hpp"

namespace quillfort {
namespace {

namespace Config = QuillfortFilterVendorConfiguration;
using Dictionary = PropertyListDictionary;
using S = std::string;

RuleSnapshotEnvelope sampleSnapshot() {
    Rule rule;
    rule.id = testing::uuidNumber(1);
    rule.name = "Allow curl";
    return RuleSnapshotEnvelope{Date{std::chrono::seconds{1772366400}}, {rule}};
}

Dictionary mergedWithoutOptionals(const std::optional<Dictionary>& existing) {
    return Config::merged(existing, "enforce", sampleSnapshot(), std::nullopt, std::nullopt, std::nullopt,
                          std::nullopt, std::nullopt, std::nullopt);
}

TEST(QuillfortFilterVendorConfiguration, MergeFallsBackToExistingButDropsAutomationResponse) {
    const Dictionary existing{
        {"unknownTrafficMode", S("blocking")},
        {"promptAutomationResponse", S("allow-once")},
        {"vendorExtra", std::int64_t{7}},
        {"ruleTransport", S("rule_snapshot_json_v0")},
        {"processGraphSnapshotJSON", S("{}")},
        {"consoleUserHomeDirectoryPath", S("/home/dev")},
        {"promptAutomationHost", S(" [::1] ")},
        {"promptAutomationPort", 27839.0},
        {"shadowPromptDropEnabled", false},
    };
    const Dictionary expected{
        {"mode", S("enforce")},
        {"ruleTransport", S("rule_snapshot_json_v1")},
        {"ruleSnapshotJSON", *Config::encodedRuleSnapshot(sampleSnapshot())},
        {"unknownTrafficMode", S("blocking")},
        {"vendorExtra", std::int64_t{7}},
        {"processGraphTransport", S("process_graph_snapshot_json_v1")},
        {"processGraphSnapshotJSON", S("{}")},
        {"consoleUserHomeDirectoryPath", S("/home/dev")},
        {"promptAutomationHost", S("::1")},  // read back through the focus decoder
        {"promptAutomationPort", std::int64_t{27839}},
        {"shadowPromptDropEnabled", false},
    };
    const auto merged = mergedWithoutOptionals(existing);
    EXPECT_EQ(merged, expected);
    EXPECT_EQ(Config::decodedRuleSnapshot(merged), sampleSnapshot());
    EXPECT_EQ(mergedWithoutOptionals(std::nullopt).size(), 3u);  // mode, ruleTransport, ruleSnapshotJSON
}

TEST(QuillfortFilterVendorConfiguration, MergeWritesGivenValuesAndRemovesEmptyOnes) {
    const Dictionary existing{
        {"processGraphTransport", S("process_graph_snapshot_json_v1")},
        {"consoleUserHomeDirectoryPath", S("/home/old")},
        {"promptAutomationHost", S("old.example.com")},
        {"promptAutomationPort", std::int64_t{443}},
    };
    const auto merged = Config::merged(existing, "monitor", sampleSnapshot(), UnknownTrafficMode::permissive, S(""),
                                       S(""), S(" allow-once\n "), FlowPromptAutomationFocus{"new.example.com", {}}, true);
    const Dictionary expected{
        {"mode", S("monitor")},
        {"ruleTransport", S("rule_snapshot_json_v1")},
        {"ruleSnapshotJSON", *Config::encodedRuleSnapshot(sampleSnapshot())},
        {"unknownTrafficMode", S("permissive")},
        // An empty process graph still counts as present; an empty home does not.
        {"processGraphTransport", S("process_graph_snapshot_json_v1")},
        {"processGraphSnapshotJSON", S("")},
        {"promptAutomationResponse", S("allow-once")},
        {"promptAutomationHost", S("new.example.com")},  // its port is gone with the portless focus
        {"shadowPromptDropEnabled", true},
    };
    EXPECT_EQ(merged, expected);

    const auto blank = Config::merged(Dictionary{{"processGraphTransport", S("process_graph_snapshot_json_v1")}},
                                      "enforce", sampleSnapshot(), {}, {}, {}, S(" \t\n "), {}, {});
    EXPECT_EQ(blank.size(), 3u) << "blank automation response and orphan graph transport removed";
}

TEST(QuillfortFilterVendorConfiguration, RuleSnapshotTextIsCompactAndBadTextGivesNothing) {
    const auto text = Config::encodedRuleSnapshot(sampleSnapshot());
    ASSERT_TRUE(text.has_value());
    EXPECT_TRUE(text->starts_with(R"({"generatedAt":"2026-03-01T12:00:00Z","rules":[{"id":)")) << *text;
    for (std::string_view bad : {"{", R"({"generatedAt":"2026-03-01 12:00","rules":[]})"})
        EXPECT_EQ(Config::decodedRuleSnapshot(bad), std::nullopt) << bad;
}

// Every reader gives nothing for a missing dictionary or key, a value of the
// wrong type, or text it cannot read.
TEST(QuillfortFilterVendorConfiguration, DecodersGiveNothingForMissingOrMistypedValues) {
    const std::optional<Dictionary> cases[] = {
        std::nullopt,
        Dictionary{{"unknownTrafficMode", true},
                   {"processGraphSnapshotJSON", std::int64_t{1}},
                   {"consoleUserHomeDirectoryPath", 1.5},
                   {"promptAutomationResponse", false},
                   {"shadowPromptDropEnabled", std::int64_t{1}},
                   {"ruleSnapshotJSON", true},
                   {"promptAutomationHost", std::int64_t{127}}},
    };
    for (const auto& configuration : cases) {
        SCOPED_TRACE(configuration ? "mistyped values" : "no dictionary");
        EXPECT_EQ(Config::decodedUnknownTrafficMode(configuration), std::nullopt);
        EXPECT_EQ(Config::decodedShadowPromptDropEnabled(configuration), std::nullopt);
        EXPECT_EQ(Config::decodedRuleSnapshot(configuration), std::nullopt);
        EXPECT_EQ(Config::decodedPromptAutomationFocus(configuration), std::nullopt);
        EXPECT_EQ(Config::decodedPromptAutomationDirective(configuration), std::nullopt);
        EXPECT_EQ(Config::decodedProcessGraphSnapshotJSON(configuration), std::nullopt);
        EXPECT_EQ(Config::decodedConsoleUserHomeDirectoryPath(configuration), std::nullopt);
        EXPECT_EQ(Config::decodedPromptAutomationResponseRawValue(configuration), std::nullopt);
    }
    const Dictionary unreadable{{"unknownTrafficMode", S("Blocking")},
                                {"promptAutomationHost", S(" [] ")},
                                {"promptAutomationPort", std::int64_t{443}}};
    EXPECT_EQ(Config::decodedUnknownTrafficMode(unreadable), std::nullopt);
    EXPECT_EQ(Config::decodedPromptAutomationFocus(unreadable), std::nullopt);
}

TEST(QuillfortFilterVendorConfiguration, FocusPortFromIntegersAndReals) {
    const std::pair<PropertyListValue, std::optional<std::uint16_t>> cases[] = {
        {std::int64_t{65535}, 65535},
        {std::int64_t{0}, 0},
        {std::int64_t{70000}, std::nullopt},
        {std::int64_t{-1}, std::nullopt},
        {27839.9, 27839},  // the fraction is dropped
        {70000.5, 65535},  // reals saturate
        {-5.0, 0},
        {std::nan(""), std::nullopt},
        {S("27839"), std::nullopt},
    };
    for (const auto& [port, expected] : cases) {
        const Dictionary configuration{{"promptAutomationHost", S(" [::1]\n")}, {"promptAutomationPort", port}};
        EXPECT_EQ(Config::decodedPromptAutomationFocus(configuration), (FlowPromptAutomationFocus{"::1", expected}))
            << ::testing::PrintToString(port);
    }
}

TEST(QuillfortFilterVendorConfiguration, DirectiveNamesPresetTrimmedInAnyCase) {
    Dictionary focused{{"promptAutomationResponse", S(" Allow-ONCE\n")},
                       {"promptAutomationHost", S("API.Example.com")},
                       {"promptAutomationPort", std::int64_t{443}}};
    EXPECT_EQ(Config::decodedPromptAutomationDirective(focused),
              (FlowPromptAutomationDirective{FlowPromptAutomationPreset::allowOnce,
                                             FlowPromptAutomationFocus{"api.example.com", 443}}));
    focused["promptAutomationResponse"] = S("allowOnce");
    EXPECT_EQ(Config::decodedPromptAutomationDirective(focused), std::nullopt);
}

}  // namespace
}  // namespace quillfort
