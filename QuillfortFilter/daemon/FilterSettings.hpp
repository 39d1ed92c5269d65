// What the filter runs with: its command line, and the configuration
// dictionary read from /etc/quillfort/filter.json with the options that
// override it. Nothing here touches the kernel.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>

#include "contracts/FlowFilterEvent.hpp"
#include "contracts/FlowPromptAutomation.hpp"
#include "contracts/QuillfortFilterVendorConfiguration.hpp"
#include "contracts/RuleSnapshotEnvelope.hpp"
#include "model/FlowDecision.hpp"
#include "platform/Error.hpp"

namespace quillfort {

struct FilterOptions {
    std::uint16_t queue = 27839;
    bool includeLoopback = false;
    bool failClosed = false;
    std::optional<std::filesystem::path> home;  // whose shared folder; default: the console user's
    std::filesystem::path configurationFile = "/etc/quillfort/filter.json";
    std::optional<FlowFilterMode> mode;                      // overrides the file
    std::optional<UnknownTrafficMode> unknownTrafficMode;    // overrides the file
    std::filesystem::path stateDirectory = "/var/lib/quillfort";
    std::filesystem::path statusFile = "/run/quillfort/filter-status.json";
    bool useSocketOwnerPrograms = true;
    std::uint16_t agentLoopbackPort = 27839;
};

// The configuration in force, after the file and the overrides.
struct FilterSettings {
    FlowFilterMode mode = FlowFilterMode::enforce;
    UnknownTrafficMode unknownTrafficMode = UnknownTrafficMode::alerting;
    std::optional<FlowPromptAutomationDirective> automation;
    bool shadowPromptDrop = true;
    bool bootstrapAllowlist = true;
    std::optional<RuleSnapshotEnvelope> configurationSnapshot;
    std::optional<std::string> consoleHome;

    // Read from a dictionary: a missing key keeps its default, a key of the
    // wrong type or an unknown mode is reported in `problems` and ignored.
    [[nodiscard]] static FilterSettings from(const PropertyListDictionary& dictionary, const FilterOptions& options,
                                             std::vector<std::string>& problems);

    bool operator==(const FilterSettings&) const = default;
};

// Filter-only keys of the dictionary, beside the shared ones.
namespace FilterConfigurationKeys {
inline constexpr std::string_view bootstrapAllowlistEnabled = "bootstrapAllowlistEnabled";
}

// The file as a dictionary: an absent file is an empty dictionary, anything
// unreadable or malformed an error (the filter then keeps what it had).
[[nodiscard]] Result<PropertyListDictionary> readConfigurationFile(const std::filesystem::path& file);

}  // namespace quillfort
