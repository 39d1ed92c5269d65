// Any bytes one side may find where the other writes: a bridge request or
// response (in a file, or a loopback frame's payload), the bare request and
// response of the service connection, the listener manifest, the status and
// command files. A request that decodes is also taken through everything the
// agent does with a new prompt before a user sees it.
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

#include "contracts/FlowPromptAutomation.hpp"
#include "contracts/FlowPromptMessages.hpp"
#include "contracts/FlowPromptRuleBuilder.hpp"
#include "contracts/PromptAgentAutomationCommand.hpp"
#include "contracts/PromptAgentStatusSnapshot.hpp"
#include "contracts/QuillfortPromptBridgeEnvelopes.hpp"
#include "contracts/QuillfortPromptListenerRecord.hpp"

namespace {

// Whatever decodes must write back to something that decodes equal.
template <class T>
std::optional<T> roundTrip(std::string_view text) {
    auto value = quillfort::decodeJson<T>(text);
    if (!value) {
        (void)value.error().description();
        return std::nullopt;
    }
    auto again = quillfort::decodeJson<T>(quillfort::encodeCompact(*value));
    if (!again || !(*again == *value)) __builtin_trap();
    return *value;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    roundTrip<quillfort::QuillfortPromptBridgeRequestEnvelope>(text);
    roundTrip<quillfort::QuillfortPromptBridgeResponseEnvelope>(text);
    roundTrip<quillfort::FlowPromptResponse>(text);
    if (const auto request = roundTrip<quillfort::FlowPromptRequest>(text)) {
        namespace Builder = quillfort::FlowPromptRuleBuilder;
        const auto rule = Builder::buildSuggestedRule(*request, quillfort::RuleAction::allow,
                                                      quillfort::RuleScope::persistent, Builder::defaultSelection(*request));
        if (rule) (void)quillfort::encodePretty(*rule);
        (void)quillfort::FlowPromptAutomationFocus{.host = "example.com", .port = 443}.matches(*request);
    }
    if (auto record = quillfort::decodeJson<quillfort::QuillfortPromptListenerRecord>(text)) {
        (void)record->summary();
        (void)quillfort::encodeCompact(*record);
    }
    if (auto status = quillfort::decodeJson<quillfort::PromptAgentStatusSnapshot>(text))
        (void)quillfort::encodePretty(*status);
    (void)quillfort::decodeJson<quillfort::PromptAgentAutomationCommand>(text);
    return 0;
}
