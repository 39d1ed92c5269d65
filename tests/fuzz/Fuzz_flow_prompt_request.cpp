// The bare flow prompt request of the service connection: decoded, written
// back, and taken through everything the agent does with a new prompt before
// a user sees it (suggested rule, automation focus).
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "contracts/FlowPromptAutomation.hpp"
#include "contracts/FlowPromptMessages.hpp"
#include "contracts/FlowPromptRuleBuilder.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    auto request = quillfort::decodeJson<quillfort::FlowPromptRequest>(text);
    if (!request) return 0;
    auto again = quillfort::decodeJson<quillfort::FlowPromptRequest>(quillfort::encodeCompact(*request));
    if (!again || !(*again == *request)) __builtin_trap();

    const auto selection = quillfort::FlowPromptRuleBuilder::defaultSelection(*request);
    const auto rule = quillfort::FlowPromptRuleBuilder::buildSuggestedRule(
        *request, quillfort::RuleAction::allow, quillfort::RuleScope::persistent, selection);
    if (rule) (void)quillfort::encodePretty(*rule);
    const quillfort::FlowPromptAutomationFocus focus{.host = "example.com", .port = 443};
    (void)focus.matches(*request);
    return 0;
}
