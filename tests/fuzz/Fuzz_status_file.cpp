// Any bytes found in the status or automation command files.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "contracts/PromptAgentAutomationCommand.hpp"
#include "contracts/PromptAgentStatusSnapshot.hpp"
#include "contracts/RuleSnapshotEnvelope.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::string_view text(reinterpret_cast<const char*>(data), size);
    if (auto status = quillfort::decodeJson<quillfort::PromptAgentStatusSnapshot>(text))
        (void)quillfort::encodePretty(*status);
    (void)quillfort::decodeJson<quillfort::PromptAgentAutomationCommand>(text);
    if (auto rules = quillfort::decodeJson<quillfort::RuleSnapshotEnvelope>(text))
        (void)quillfort::encodePretty(*rules);
    return 0;
}
