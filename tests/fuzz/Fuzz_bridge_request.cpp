// Any bytes a client drops into the requests directory or sends over loopback.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "contracts/QuillfortPromptBridgeEnvelopes.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::string_view text(reinterpret_cast<const char*>(data), size);
    auto envelope = quillfort::decodeJson<quillfort::QuillfortPromptBridgeRequestEnvelope>(text);
    if (envelope) {
        // Whatever decodes must write back to something that decodes equal.
        auto again = quillfort::decodeJson<quillfort::QuillfortPromptBridgeRequestEnvelope>(
            quillfort::encodeCompact(*envelope));
        if (!again || !(*again == *envelope)) __builtin_trap();
    } else {
        (void)envelope.error().description();
    }
    (void)quillfort::decodeJson<quillfort::QuillfortPromptBridgeResponseEnvelope>(text);
    return 0;
}
