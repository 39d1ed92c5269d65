// Any bytes one side may find where the other writes: a bridge request or
// response (in a file, or a loopback frame's payload), the bare response of the
// service connection, the listener manifest, the status and command files.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "contracts/FlowPromptMessages.hpp"
#include "contracts/PromptAgentAutomationCommand.hpp"
#include "contracts/PromptAgentStatusSnapshot.hpp"
#include "contracts/QuillfortPromptBridgeEnvelopes.hpp"
#include "contracts/QuillfortPromptListenerRecord.hpp"

namespace {

// Whatever decodes must write back to something that decodes equal.
template <class T>
void roundTrip(std::string_view text) {
    auto value = quillfort::decodeJson<T>(text);
    if (!value) {
        (void)value.error().description();
        return;
    }
    auto again = quillfort::decodeJson<T>(quillfort::encodeCompact(*value));
    if (!again || !(*again == *value)) __builtin_trap();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    roundTrip<quillfort::QuillfortPromptBridgeRequestEnvelope>(text);
    roundTrip<quillfort::QuillfortPromptBridgeResponseEnvelope>(text);
    roundTrip<quillfort::FlowPromptResponse>(text);
    if (auto record = quillfort::decodeJson<quillfort::QuillfortPromptListenerRecord>(text)) {
        (void)record->summary();
        (void)quillfort::encodeCompact(*record);
    }
    if (auto status = quillfort::decodeJson<quillfort::PromptAgentStatusSnapshot>(text))
        (void)quillfort::encodePretty(*status);
    (void)quillfort::decodeJson<quillfort::PromptAgentAutomationCommand>(text);
    return 0;
}
