#include "QuillfortAgent/coordinator/StoredPromptPreference.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

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
        {Mode::suffix, ".example.net", "cdn.other.org", ".other.org"},
        {Mode::suffix, "*.corp.example.net", "x.y.z.org", ".y.z.org"},
        {Mode::suffix, " .corp.com\n", "intranet", "intranet"},
        {Mode::suffix, std::nullopt, "intranet", ".intranet"},
        {Mode::suffix, "*.kept.example", std::nullopt, "*.kept.example"},
        {Mode::exact, "old.example.com", "new.example.com", "new.example.com"},
        {Mode::none, "old.example.com", "new.example.com", std::nullopt},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(resolvedHostPatternOverride(remembered(c.mode, c.stored), requestTo(c.host)), c.expected)
            << c.stored.value_or("<none>") << " -> " << c.host.value_or("<none>");
    }
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
