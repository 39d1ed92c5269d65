// A filter configuration dictionary of any shape: every key may hold any of the
// four property-list kinds with any value, and every reader must cope.
#include <fuzzer/FuzzedDataProvider.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>

#include "contracts/QuillfortFilterVendorConfiguration.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace quillfort;
    namespace Configuration = QuillfortFilterVendorConfiguration;
    static const std::array<std::string_view, 12> keys = {
        Configuration::modeKey,
        Configuration::ruleTransportKey,
        Configuration::ruleSnapshotJSONKey,
        Configuration::unknownTrafficModeKey,
        Configuration::processGraphTransportKey,
        Configuration::processGraphSnapshotJSONKey,
        Configuration::consoleUserHomeDirectoryPathKey,
        Configuration::promptAutomationResponseKey,
        Configuration::promptAutomationHostKey,
        Configuration::promptAutomationPortKey,
        Configuration::shadowPromptDropEnabledKey,
        "unknownKey",
    };
    FuzzedDataProvider input(data, size);
    PropertyListDictionary dictionary;
    while (input.remaining_bytes() > 0) {
        const std::string key(keys[input.ConsumeIntegralInRange<std::size_t>(0, keys.size() - 1)]);
        switch (input.ConsumeIntegralInRange(0, 3)) {
            case 0: dictionary[key] = input.ConsumeRandomLengthString(4096); break;
            case 1: dictionary[key] = input.ConsumeBool(); break;
            case 2: dictionary[key] = input.ConsumeIntegral<std::int64_t>(); break;
            default: dictionary[key] = input.ConsumeFloatingPoint<double>(); break;
        }
    }
    const std::optional<PropertyListDictionary> configuration(std::move(dictionary));
    (void)Configuration::decodedUnknownTrafficMode(configuration);
    (void)Configuration::decodedProcessGraphSnapshotJSON(configuration);
    (void)Configuration::decodedConsoleUserHomeDirectoryPath(configuration);
    (void)Configuration::decodedPromptAutomationResponseRawValue(configuration);
    (void)Configuration::decodedShadowPromptDropEnabled(configuration);
    (void)Configuration::decodedPromptAutomationFocus(configuration);
    (void)Configuration::decodedPromptAutomationDirective(configuration);
    // What is read back and merged over the same dictionary must read back alike.
    if (const auto snapshot = Configuration::decodedRuleSnapshot(configuration)) {
        const auto merged = Configuration::merged(configuration, "prompt", *snapshot, std::nullopt, std::nullopt,
                                                  std::nullopt, std::nullopt, std::nullopt, std::nullopt);
        if (Configuration::decodedRuleSnapshot(merged) != snapshot) __builtin_trap();
    }
    return 0;
}
