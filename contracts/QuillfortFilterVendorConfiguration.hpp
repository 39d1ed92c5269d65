// The configuration dictionary handed to the network filter: its keys, the
// values they hold, how a new configuration is merged over the previous one,
// and the readers that take each value back out. Nothing here fails: a missing
// or mistyped value reads as absent.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

#include "contracts/FlowPromptAutomation.hpp"
#include "contracts/RuleSnapshotEnvelope.hpp"
#include "model/FlowDecision.hpp"

namespace quillfort {

// A property-list value as the configuration dictionary carries it.
using PropertyListValue = std::variant<std::string, bool, std::int64_t, double>;
using PropertyListDictionary = std::map<std::string, PropertyListValue>;

namespace QuillfortFilterVendorConfiguration {

inline constexpr std::string_view modeKey = "mode";
inline constexpr std::string_view ruleTransportKey = "ruleTransport";
inline constexpr std::string_view ruleSnapshotJSONKey = "ruleSnapshotJSON";
inline constexpr std::string_view unknownTrafficModeKey = "unknownTrafficMode";
inline constexpr std::string_view processGraphTransportKey = "processGraphTransport";
inline constexpr std::string_view processGraphSnapshotJSONKey = "processGraphSnapshotJSON";
inline constexpr std::string_view consoleUserHomeDirectoryPathKey = "consoleUserHomeDirectoryPath";
inline constexpr std::string_view promptAutomationResponseKey = "promptAutomationResponse";
inline constexpr std::string_view promptAutomationHostKey = "promptAutomationHost";
inline constexpr std::string_view promptAutomationPortKey = "promptAutomationPort";
inline constexpr std::string_view shadowPromptDropEnabledKey = "shadowPromptDropEnabled";

inline constexpr std::string_view ruleTransportVersion = "rule_snapshot_json_v1";
inline constexpr std::string_view processGraphTransportVersion = "process_graph_snapshot_json_v1";

// `existing` (or an empty dictionary) with the given values written over it.
// Each optional input left out keeps what `existing` holds for it, except the
// automation response, which is removed unless given (trimmed; blank counts as
// not given). Keys this configuration does not know are kept unchanged.
[[nodiscard]] PropertyListDictionary merged(const std::optional<PropertyListDictionary>& existing,
                                            std::string_view mode, const RuleSnapshotEnvelope& ruleSnapshot,
                                            std::optional<UnknownTrafficMode> unknownTrafficMode,
                                            std::optional<std::string> processGraphSnapshotJSON,
                                            std::optional<std::string> consoleUserHomeDirectoryPath,
                                            std::optional<std::string> promptAutomationResponseRawValue,
                                            std::optional<FlowPromptAutomationFocus> promptAutomationFocus,
                                            std::optional<bool> shadowPromptDropEnabled);

// The snapshot as compact JSON text (keys in field order, ISO 8601 dates).
[[nodiscard]] std::optional<std::string> encodedRuleSnapshot(const RuleSnapshotEnvelope& envelope);
// From the text under "ruleSnapshotJSON", or from such text itself; any failure gives nothing.
[[nodiscard]] std::optional<RuleSnapshotEnvelope> decodedRuleSnapshot(
    const std::optional<PropertyListDictionary>& configuration);
[[nodiscard]] std::optional<RuleSnapshotEnvelope> decodedRuleSnapshot(std::string_view text);

// The mode whose raw string is exactly the stored text.
[[nodiscard]] std::optional<UnknownTrafficMode> decodedUnknownTrafficMode(
    const std::optional<PropertyListDictionary>& configuration);
// The stored strings as they stand (no trimming).
[[nodiscard]] std::optional<std::string> decodedProcessGraphSnapshotJSON(
    const std::optional<PropertyListDictionary>& configuration);
[[nodiscard]] std::optional<std::string> decodedConsoleUserHomeDirectoryPath(
    const std::optional<PropertyListDictionary>& configuration);
[[nodiscard]] std::optional<std::string> decodedPromptAutomationResponseRawValue(
    const std::optional<PropertyListDictionary>& configuration);
[[nodiscard]] std::optional<bool> decodedShadowPromptDropEnabled(
    const std::optional<PropertyListDictionary>& configuration);

// The focus from the stored host (normalised; nothing when it normalises to
// nothing) and port. An integer port outside 0...65535 gives no port. A port
// stored as a real is converted to an unsigned 16-bit number the way a
// saturating cast does: the fraction is dropped (toward zero) and values beyond
// the range clamp to 0 or 65535, so 27839.0 gives 27839; NaN gives no port.
[[nodiscard]] std::optional<FlowPromptAutomationFocus> decodedPromptAutomationFocus(
    const std::optional<PropertyListDictionary>& configuration);
// The stored response, trimmed and lower-cased, must name a preset exactly
// ("allow-session"); the focus is added when there is one.
[[nodiscard]] std::optional<FlowPromptAutomationDirective> decodedPromptAutomationDirective(
    const std::optional<PropertyListDictionary>& configuration);

}  // namespace QuillfortFilterVendorConfiguration
}  // namespace quillfort
