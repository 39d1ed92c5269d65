#include "QuillfortAgent/StoredPromptPreference.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "contracts/FlowPromptRuleBuilder.hpp"
#include "platform/InMemoryUserDefaults.hpp"
#include "tests/testsupport/ModelSamples.hpp"
#include "tests/testsupport/SequentialUuidSource.hpp"

namespace quillfort {
namespace {

using Mode = FlowPromptHostMatchMode;

FlowPromptRequest requestTo(std::optional<std::string> host) {
    FlowPromptRequest request{
        .id = testing::uuidNumber(1), .context = testing::sampleFlowContext(), .suggestedRule = {}};
    request.context.matchedHostname = host;
    request.context.flow.hostText = host;
    if (!host) request.context.flow.remoteEndpoint.reset();
    return request;
}

StoredPromptPreference remembered(Mode mode, std::optional<std::string> pattern) {
    return {.preset = AgentPromptDecisionPreset::allowSession,
            .includeExactProcess = true,
            .includeAncestorApp = true,
            .includeProcessTag = true,
            .hostMatchMode = mode,
            .hostPatternOverride = std::move(pattern),
            .includePortExact = true,
            .includeProtocol = true};
}

TEST(StoredPromptPreference, HostPatternCarriesOverToTheNewHost) {
    struct Case {
        Mode mode;
        std::optional<std::string> stored, host, expected;
    };
    const Case cases[] = {
        {Mode::suffix, ".example.net", "a.b.example.net", ".example.net"},
        {Mode::suffix, ".example.net", "example.net", ".example.net"},
        {Mode::suffix, ".example.net", "cdn.other.org", ".other.org"},
        {Mode::suffix, "*.corp.example.net", "x.y.z.org", ".y.z.org"},
        {Mode::suffix, " .corp.com\n", "intranet", "intranet"},
        {Mode::suffix, std::nullopt, "intranet", ".intranet"},
        {Mode::suffix, std::nullopt, "api.service.io", ".service.io"},
        {Mode::suffix, "*.", "api.service.io", ".service.io"},
        {Mode::suffix, "*.kept.example", std::nullopt, "*.kept.example"},
        {Mode::exact, "old.example.com", "new.example.com", "new.example.com"},
        {Mode::exact, "old.example.com", std::nullopt, std::nullopt},
        {Mode::none, "old.example.com", "new.example.com", std::nullopt},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(resolvedHostPatternOverride(remembered(c.mode, c.stored), requestTo(c.host)), c.expected)
            << c.stored.value_or("<none>") << " -> " << c.host.value_or("<none>");
    }
}

TEST(StoredPromptPreference, CombinesWithTheDefaultFacetByFacet) {
    auto request = requestTo("api.example.com");
    auto defaults = FlowPromptRuleBuilder::defaultSelection(request);
    defaults.includeExactProcess = false;
    defaults.includeProtocol = false;
    auto preference = remembered(Mode::suffix, std::nullopt);
    preference.includeAncestorApp = false;

    const auto combined = combinedRuleSelection(defaults, preference, request);
    EXPECT_FALSE(combined.includeExactProcess);
    EXPECT_FALSE(combined.includeSigner);  // follows the combined exact-process choice
    EXPECT_FALSE(combined.includeAncestorApp);
    EXPECT_FALSE(combined.includeProtocol);
    EXPECT_TRUE(combined.includeProcessTag);
    EXPECT_TRUE(combined.includePortExact);
    EXPECT_EQ(combined.hostMatchMode, Mode::suffix);
    EXPECT_EQ(combined.hostPatternOverride, ".example.com");
}

TEST(StoredPromptPreference, StoredFormLeavesOutTheSignerAndRejectsIncompleteData) {
    InMemoryUserDefaults defaults;
    EXPECT_FALSE(StoredPromptPreference::load(defaults));

    const auto preference = remembered(Mode::exact, std::nullopt);
    ASSERT_TRUE(preference.save(defaults));
    EXPECT_EQ(*defaults.data(StoredPromptPreference::userDefaultsKey),
              R"({"preset":"allowSession","includeExactProcess":true,"includeAncestorApp":true,)"
              R"("includeProcessTag":true,"hostMatchMode":"exact","includePortExact":true,"includeProtocol":true})");
    EXPECT_EQ(StoredPromptPreference::load(defaults), preference);

    for (std::string_view bad : {R"({"preset":"allowSession","includeExactProcess":true,"includeAncestorApp":true,)"
                                 R"("includeProcessTag":true,"hostMatchMode":"exact","includePortExact":true})",
                                 R"({"preset":"allow-session"})", "not json"}) {
        ASSERT_TRUE(defaults.setData(StoredPromptPreference::userDefaultsKey, bad));
        EXPECT_FALSE(StoredPromptPreference::load(defaults)) << bad;
    }
}

}  // namespace
}  // namespace quillfort
