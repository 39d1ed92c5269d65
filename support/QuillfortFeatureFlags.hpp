// The switches the agent reads from its process environment once at start:
// automation bridge, canned automation answer, shadow prompt drop, verbose
// logging and stub extensions.
#pragma once

#include <optional>
#include <string>
#include <tuple>

#include "model/Json.hpp"
#include "platform/ProcessInfo.hpp"

namespace quillfort {

struct QuillfortFeatureFlags {
    // Defaults are those of an environment that sets none of the variables.
    bool automationBridgeEnabled = false;
    std::optional<std::string> automationPromptResponseRawValue;
    bool shadowPromptDropEnabled = true;
    bool verboseLoggingEnabled = false;
    bool stubExtensionsEnabled = false;

    // Reads the environment afresh on every call; nothing is cached.
    //  - QUILLFORT_AUTOMATION_BRIDGE, QUILLFORT_VERBOSE_LOGGING and
    //    QUILLFORT_STUB_EXTENSIONS are on only for the exact value "1";
    //  - QUILLFORT_AGENT_AUTOMATION_RESPONSE is kept trimmed, absent when blank;
    //  - QUILLFORT_SHADOW_PROMPT_DROP is off only for "0", "false" or "no"
    //    (trimmed, any case).
    [[nodiscard]] static QuillfortFeatureFlags resolve(const ProcessInfo& processInfo);

    bool operator==(const QuillfortFeatureFlags&) const = default;
};

template <>
struct JsonFields<QuillfortFeatureFlags> {
    static constexpr auto fields = std::tuple{
        jsonField("automationBridgeEnabled", &QuillfortFeatureFlags::automationBridgeEnabled),
        jsonField("automationPromptResponseRawValue",
                  &QuillfortFeatureFlags::automationPromptResponseRawValue),
        jsonField("shadowPromptDropEnabled", &QuillfortFeatureFlags::shadowPromptDropEnabled),
        jsonField("verboseLoggingEnabled", &QuillfortFeatureFlags::verboseLoggingEnabled),
        jsonField("stubExtensionsEnabled", &QuillfortFeatureFlags::stubExtensionsEnabled),
    };
};

}  // namespace quillfort
