#include "support/QuillfortFeatureFlags.hpp"

#include "model/Text.hpp"

namespace quillfort {

namespace {

// On only for the exact text "1": no trimming, no case folding.
bool exactlyOne(const ProcessInfo& processInfo, const std::string& name) {
    const auto value = processInfo.environmentValue(name);
    return value && *value == "1";
}

}  // namespace

QuillfortFeatureFlags QuillfortFeatureFlags::resolve(const ProcessInfo& processInfo) {
    QuillfortFeatureFlags flags;
    flags.automationBridgeEnabled = exactlyOne(processInfo, "QUILLFORT_AUTOMATION_BRIDGE");

    if (const auto response = processInfo.environmentValue("QUILLFORT_AGENT_AUTOMATION_RESPONSE")) {
        const auto value = text::trimmed(*response);
        if (!value.empty()) flags.automationPromptResponseRawValue = std::string(value);
    }

    if (const auto drop = processInfo.environmentValue("QUILLFORT_SHADOW_PROMPT_DROP")) {
        const auto folded = text::lowercased(text::trimmed(*drop));
        flags.shadowPromptDropEnabled = !(folded == "0" || folded == "false" || folded == "no");
    }

    flags.verboseLoggingEnabled = exactlyOne(processInfo, "QUILLFORT_VERBOSE_LOGGING");
    flags.stubExtensionsEnabled = exactlyOne(processInfo, "QUILLFORT_STUB_EXTENSIONS");
    return flags;
}

}  // namespace quillfort
