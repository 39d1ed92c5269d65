// Any bytes under the stored prompt preference in the user defaults, and the
// selection a new prompt opens with when they decode.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "QuillfortAgent/coordinator/StoredPromptPreference.hpp"
#include "contracts/FlowPromptRuleBuilder.hpp"
#include "platform/InMemoryUserDefaults.hpp"
#include "tests/contracts/FlowPromptSamples.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace quillfort;
    const std::string_view bytes(reinterpret_cast<const char*>(data), size);
    InMemoryUserDefaults defaults;
    if (!defaults.setData(StoredPromptPreference::userDefaultsKey, bytes)) return 0;
    const auto preference = StoredPromptPreference::load(defaults);
    if (!preference) return 0;
    const auto request = quillfort::testing::sampleRequest();
    (void)combinedRuleSelection(FlowPromptRuleBuilder::defaultSelection(request), *preference, request);
    InMemoryUserDefaults written;
    if (!preference->save(written) || StoredPromptPreference::load(written) != preference) __builtin_trap();
    return 0;
}
