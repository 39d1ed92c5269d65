// The last choice the user confirmed in the decision window, kept in the user
// defaults so that it seeds every later prompt, across launches.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "QuillfortAgent/coordinator/AgentPromptDecisionPreset.hpp"
#include "QuillfortAgent/coordinator/AgentPromptSession.hpp"
#include "contracts/FlowPromptMessages.hpp"
#include "model/Json.hpp"
#include "platform/Error.hpp"
#include "platform/UserDefaults.hpp"

namespace quillfort {

// A rule selection without the signer (which always follows the exact-process
// choice), plus the preset. One per user, whatever the prompt.
struct StoredPromptPreference {
    AgentPromptDecisionPreset preset = AgentPromptDecisionPreset::allowOnce;
    bool includeExactProcess = false;
    bool includeAncestorApp = false;
    bool includeProcessTag = false;
    FlowPromptHostMatchMode hostMatchMode = FlowPromptHostMatchMode::none;
    std::optional<std::string> hostPatternOverride;
    bool includePortExact = false;
    bool includeProtocol = false;

    static constexpr std::string_view userDefaultsKey = "Quillfort.Agent.StoredPromptPreference";

    // The preference a confirmed answer of `session` leaves behind.
    [[nodiscard]] static StoredPromptPreference from(const AgentPromptSession& session);

    // Absent when nothing is stored or the stored bytes do not decode (older or
    // foreign data); such data is simply replaced by the next confirmed answer.
    [[nodiscard]] static std::optional<StoredPromptPreference> load(const UserDefaults& defaults);
    [[nodiscard]] VoidResult save(UserDefaults& defaults) const;

    bool operator==(const StoredPromptPreference&) const = default;
};

template <>
struct JsonFields<StoredPromptPreference> {
    using T = StoredPromptPreference;
    static constexpr auto fields = std::tuple{
        jsonField("preset", &T::preset),
        jsonField("includeExactProcess", &T::includeExactProcess),
        jsonField("includeAncestorApp", &T::includeAncestorApp),
        jsonField("includeProcessTag", &T::includeProcessTag),
        jsonField("hostMatchMode", &T::hostMatchMode),
        jsonField("hostPatternOverride", &T::hostPatternOverride),
        jsonField("includePortExact", &T::includePortExact),
        jsonField("includeProtocol", &T::includeProtocol),
    };
};

// The selection a new session opens with: a facet is chosen only when both the
// request's default and the remembered preference choose it; the host match
// mode is the remembered one, with its pattern carried over to the new host.
[[nodiscard]] FlowPromptRuleSelection combinedRuleSelection(const FlowPromptRuleSelection& defaultSelection,
                                                            const StoredPromptPreference& preference,
                                                            const FlowPromptRequest& request);

// The remembered host pattern applied to `request`'s host: a remembered domain
// that still covers the host is kept, otherwise the host's own domain of the
// same depth is taken. An exact pattern is never reused for another host.
[[nodiscard]] std::optional<std::string> resolvedHostPatternOverride(const StoredPromptPreference& preference,
                                                                     const FlowPromptRequest& request);

}  // namespace quillfort
