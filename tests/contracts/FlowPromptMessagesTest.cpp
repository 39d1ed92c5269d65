#include "contracts/FlowPromptMessages.hpp"

#include <gtest/gtest.h>

#include "contracts/FlowPromptRuleBuilder.hpp"
#include "tests/contracts/FlowPromptSamples.hpp"
#include "tests/testsupport/SequentialUuidSource.hpp"

namespace quillfort {
namespace {

using testing::sampleRequest;

template <class T>
void expectRoundTrip(const T& value) {
    const std::string text = encodeCompact(value);
    const auto decoded = decodeJson<T>(text);
    ASSERT_TRUE(decoded.has_value()) << decoded.error() << " in " << text;
    EXPECT_EQ(*decoded, value) << text;
}

TEST(FlowPromptMessages, EveryMessageRoundTrips) {
    auto request = sampleRequest();
    testing::SequentialUuidSource ids;
    auto selection = FlowPromptRuleBuilder::defaultSelection(request);
    auto rule = FlowPromptRuleBuilder::buildSuggestedRule(request, RuleAction::drop, RuleScope::persistent, selection, ids);
    request.suggestedRule = rule;
    expectRoundTrip(request);

    expectRoundTrip(selection);
    selection.hostMatchMode = FlowPromptHostMatchMode::suffix;
    selection.hostPatternOverride.reset();
    expectRoundTrip(selection);

    expectRoundTrip(FlowPromptResponse{request.id, RuleAction::allow, RuleScope::temporary, false, std::nullopt, std::nullopt});
    expectRoundTrip(FlowPromptResponse{request.id, RuleAction::drop, RuleScope::persistent, true, selection, rule});
    expectRoundTrip(FlowPromptSignerChangeCandidate{testing::uuidNumber(5), "Allow curl", "com.apple.curl.old"});
}

TEST(FlowPromptMessages, AbsentOptionalsAreLeftOut) {
    const FlowPromptResponse response{testing::uuidNumber(1), RuleAction::allow, RuleScope::temporary, false, std::nullopt, std::nullopt};
    EXPECT_EQ(encodeCompact(response),
              R"({"promptID":"00000000-0000-0000-0000-000000000001","action":"allow","scope":"temporary","persist":false})");
}

TEST(FlowPromptMessages, DecodeFailuresNameTheKey) {
    const std::string flags = R"("includeExactProcess":true,"includeSigner":false,"includeAncestorApp":false,)"
                              R"("includeProcessTag":false,"includePortExact":true)";
    const std::pair<std::string, std::string> cases[] = {
        {"{" + flags + R"(,"hostMatchMode":"exact"})", "includeProtocol"},
        {"{" + flags + R"(,"hostMatchMode":"domain","includeProtocol":true})", "hostMatchMode"},
    };
    for (const auto& [text, key] : cases) {
        const auto decoded = decodeJson<FlowPromptRuleSelection>(text);
        ASSERT_FALSE(decoded.has_value()) << text;
        EXPECT_EQ(decoded.error().path, key);
    }
    EXPECT_FALSE(decodeJson<FlowPromptResponse>(R"({"promptID":"00000000-0000-0000-0000-000000000001",)"
                                                R"("action":"allow","scope":"session"})"));
}

}  // namespace
}  // namespace quillfort
