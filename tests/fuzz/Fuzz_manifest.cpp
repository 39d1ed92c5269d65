// Any bytes found where the listener manifest should be.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "contracts/QuillfortPromptListenerRecord.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::string_view text(reinterpret_cast<const char*>(data), size);
    if (auto record = quillfort::decodeJson<quillfort::QuillfortPromptListenerRecord>(text)) {
        (void)record->summary();
        (void)quillfort::encodeCompact(*record);
    }
    return 0;
}
