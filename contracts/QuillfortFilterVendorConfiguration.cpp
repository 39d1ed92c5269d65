#include "contracts/QuillfortFilterVendorConfiguration.hpp"

#include <cmath>
#include <exception>
#include <limits>
#include <utility>

#include "model/Json.hpp"
#include "model/Text.hpp"

namespace quillfort::QuillfortFilterVendorConfiguration {
namespace {

using Configuration = std::optional<PropertyListDictionary>;

const PropertyListValue* find(const Configuration& configuration, std::string_view key) {
    if (!configuration) return nullptr;
    auto found = configuration->find(std::string(key));
    return found == configuration->end() ? nullptr : &found->second;
}

template <class T>
std::optional<T> valueOfType(const Configuration& configuration, std::string_view key) {
    const PropertyListValue* value = find(configuration, key);
    if (value == nullptr) return std::nullopt;
    if (const T* typed = std::get_if<T>(value)) return *typed;
    return std::nullopt;
}

void set(PropertyListDictionary& dictionary, std::string_view key, PropertyListValue value) {
    dictionary.insert_or_assign(std::string(key), std::move(value));
}

void remove(PropertyListDictionary& dictionary, std::string_view key) { dictionary.erase(std::string(key)); }

// A real taken as an unsigned 16-bit number: fraction dropped, range saturated.
std::optional<std::uint16_t> saturatedPort(double value) {
    if (std::isnan(value)) return std::nullopt;
    const double whole = std::trunc(value);
    if (whole <= 0) return std::uint16_t{0};
    if (whole >= std::numeric_limits<std::uint16_t>::max()) return std::numeric_limits<std::uint16_t>::max();
    return static_cast<std::uint16_t>(whole);
}

std::optional<std::uint16_t> decodedPort(const Configuration& configuration) {
    const PropertyListValue* value = find(configuration, promptAutomationPortKey);
    if (value == nullptr) return std::nullopt;
    if (const std::int64_t* integer = std::get_if<std::int64_t>(value)) {
        if (*integer < 0 || *integer > std::numeric_limits<std::uint16_t>::max()) return std::nullopt;
        return static_cast<std::uint16_t>(*integer);
    }
    if (const double* real = std::get_if<double>(value)) return saturatedPort(*real);
    return std::nullopt;  // a string or a boolean is not a port
}

}  // namespace

PropertyListDictionary merged(const std::optional<PropertyListDictionary>& existing, std::string_view mode,
                              const RuleSnapshotEnvelope& ruleSnapshot,
                              std::optional<UnknownTrafficMode> unknownTrafficMode,
                              std::optional<std::string> processGraphSnapshotJSON,
                              std::optional<std::string> consoleUserHomeDirectoryPath,
                              std::optional<std::string> promptAutomationResponseRawValue,
                              std::optional<FlowPromptAutomationFocus> promptAutomationFocus,
                              std::optional<bool> shadowPromptDropEnabled) {
    PropertyListDictionary dictionary = existing.value_or(PropertyListDictionary{});

    if (!unknownTrafficMode) unknownTrafficMode = decodedUnknownTrafficMode(existing);
    if (!processGraphSnapshotJSON) processGraphSnapshotJSON = decodedProcessGraphSnapshotJSON(existing);
    if (!consoleUserHomeDirectoryPath) consoleUserHomeDirectoryPath = decodedConsoleUserHomeDirectoryPath(existing);
    if (!promptAutomationFocus) promptAutomationFocus = decodedPromptAutomationFocus(existing);
    if (!shadowPromptDropEnabled) shadowPromptDropEnabled = decodedShadowPromptDropEnabled(existing);
    // An unattended answer must be given afresh each time; it never lingers.
    std::optional<std::string> automationResponse;
    if (promptAutomationResponseRawValue) automationResponse = std::string(text::trimmed(*promptAutomationResponseRawValue));

    set(dictionary, modeKey, std::string(mode));
    set(dictionary, ruleTransportKey, std::string(ruleTransportVersion));

    if (auto encoded = encodedRuleSnapshot(ruleSnapshot)) {
        set(dictionary, ruleSnapshotJSONKey, std::move(*encoded));
    } else {
        remove(dictionary, ruleSnapshotJSONKey);
    }

    if (unknownTrafficMode) {
        set(dictionary, unknownTrafficModeKey, std::string(rawValue(*unknownTrafficMode)));
    } else {
        remove(dictionary, unknownTrafficModeKey);
    }

    if (processGraphSnapshotJSON) {
        set(dictionary, processGraphTransportKey, std::string(processGraphTransportVersion));
        set(dictionary, processGraphSnapshotJSONKey, std::move(*processGraphSnapshotJSON));
    } else {
        remove(dictionary, processGraphTransportKey);
        remove(dictionary, processGraphSnapshotJSONKey);
    }

    if (consoleUserHomeDirectoryPath && !consoleUserHomeDirectoryPath->empty()) {
        set(dictionary, consoleUserHomeDirectoryPathKey, std::move(*consoleUserHomeDirectoryPath));
    } else {
        remove(dictionary, consoleUserHomeDirectoryPathKey);
    }

    if (automationResponse && !automationResponse->empty()) {
        set(dictionary, promptAutomationResponseKey, std::move(*automationResponse));
    } else {
        remove(dictionary, promptAutomationResponseKey);
    }

    if (promptAutomationFocus) {
        set(dictionary, promptAutomationHostKey, promptAutomationFocus->host);
        if (promptAutomationFocus->port) {
            set(dictionary, promptAutomationPortKey, std::int64_t{*promptAutomationFocus->port});
        } else {
            remove(dictionary, promptAutomationPortKey);
        }
    } else {
        remove(dictionary, promptAutomationHostKey);
        remove(dictionary, promptAutomationPortKey);
    }

    if (shadowPromptDropEnabled) {
        set(dictionary, shadowPromptDropEnabledKey, *shadowPromptDropEnabled);
    } else {
        remove(dictionary, shadowPromptDropEnabledKey);
    }

    return dictionary;
}

std::optional<std::string> encodedRuleSnapshot(const RuleSnapshotEnvelope& envelope) {
    try {
        return encodeCompact(envelope);
    } catch (const std::exception&) {
        return std::nullopt;
    }
}

std::optional<RuleSnapshotEnvelope> decodedRuleSnapshot(const std::optional<PropertyListDictionary>& configuration) {
    auto text = valueOfType<std::string>(configuration, ruleSnapshotJSONKey);
    if (!text) return std::nullopt;
    return decodedRuleSnapshot(std::string_view(*text));
}

std::optional<RuleSnapshotEnvelope> decodedRuleSnapshot(std::string_view text) {
    auto decoded = decodeJson<RuleSnapshotEnvelope>(text);
    if (!decoded) return std::nullopt;
    return std::move(*decoded);
}

std::optional<UnknownTrafficMode> decodedUnknownTrafficMode(const std::optional<PropertyListDictionary>& configuration) {
    auto raw = valueOfType<std::string>(configuration, unknownTrafficModeKey);
    if (!raw) return std::nullopt;
    return fromRawValue<UnknownTrafficMode>(*raw);
}

std::optional<std::string> decodedProcessGraphSnapshotJSON(const std::optional<PropertyListDictionary>& configuration) {
    return valueOfType<std::string>(configuration, processGraphSnapshotJSONKey);
}

std::optional<std::string> decodedConsoleUserHomeDirectoryPath(
    const std::optional<PropertyListDictionary>& configuration) {
    return valueOfType<std::string>(configuration, consoleUserHomeDirectoryPathKey);
}

std::optional<std::string> decodedPromptAutomationResponseRawValue(
    const std::optional<PropertyListDictionary>& configuration) {
    return valueOfType<std::string>(configuration, promptAutomationResponseKey);
}

std::optional<bool> decodedShadowPromptDropEnabled(const std::optional<PropertyListDictionary>& configuration) {
    return valueOfType<bool>(configuration, shadowPromptDropEnabledKey);
}

std::optional<FlowPromptAutomationFocus> decodedPromptAutomationFocus(
    const std::optional<PropertyListDictionary>& configuration) {
    auto host = valueOfType<std::string>(configuration, promptAutomationHostKey);
    if (!host) return std::nullopt;
    return FlowPromptAutomationFocus::make(std::string_view(*host), decodedPort(configuration));
}

std::optional<FlowPromptAutomationDirective> decodedPromptAutomationDirective(
    const std::optional<PropertyListDictionary>& configuration) {
    auto raw = valueOfType<std::string>(configuration, promptAutomationResponseKey);
    if (!raw) return std::nullopt;
    auto preset = fromRawValue<FlowPromptAutomationPreset>(text::lowercased(text::trimmed(*raw)));
    if (!preset) return std::nullopt;
    return FlowPromptAutomationDirective{*preset, decodedPromptAutomationFocus(configuration)};
}

}  // namespace quillfort::QuillfortFilterVendorConfiguration
