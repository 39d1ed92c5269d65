// Any bytes the client finds in a response file or reads back over loopback,
// and the bare response of the service connection.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "contracts/FlowPromptMessages.hpp"
#include "contracts/QuillfortPromptBridgeEnvelopes.hpp"

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
    roundTrip<quillfort::QuillfortPromptBridgeResponseEnvelope>(text);
    roundTrip<quillfort::FlowPromptResponse>(text);
    return 0;
}
