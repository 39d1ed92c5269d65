// What the network filter observed and decided about flows, as records that the
// filter keeps in its event snapshot file for monitors to read.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "model/Date.hpp"
#include "model/FlowContext.hpp"
#include "model/FlowDecision.hpp"
#include "model/Json.hpp"
#include "model/Uuid.hpp"

namespace quillfort {

enum class FlowFilterMode { monitor, enforce };
template <>
struct EnumTraits<FlowFilterMode> {
    static constexpr std::array<std::pair<FlowFilterMode, std::string_view>, 2> entries{{
        {FlowFilterMode::monitor, "monitor"},
        {FlowFilterMode::enforce, "enforce"},
    }};
};

enum class FlowFilterEventKind { observed, decided, report };
template <>
struct EnumTraits<FlowFilterEventKind> {
    static constexpr std::array<std::pair<FlowFilterEventKind, std::string_view>, 3> entries{{
        {FlowFilterEventKind::observed, "observed"},
        {FlowFilterEventKind::decided, "decided"},
        {FlowFilterEventKind::report, "report"},
    }};
};

// What produced a verdict; the three default sources carry the meaning of the
// unknown-traffic modes.
enum class FlowFilterDecisionSource {
    explicitRule,
    promptResolution,
    permissiveLearnedRule,
    bootstrapAllowlist,
    internalBypass,
    defaultAlertingPrompt,
    defaultPermissiveAllow,
    defaultBlockingDrop,
    promptFallback,
    unsupportedFallback,
};
template <>
struct EnumTraits<FlowFilterDecisionSource> {
    using S = FlowFilterDecisionSource;
    static constexpr std::array<std::pair<S, std::string_view>, 10> entries{{
        {S::explicitRule, "explicit_rule"},
        {S::promptResolution, "prompt_resolution"},
        {S::permissiveLearnedRule, "permissive_learned_rule"},
        {S::bootstrapAllowlist, "bootstrap_allowlist"},
        {S::internalBypass, "internal_bypass"},
        {S::defaultAlertingPrompt, "default_alerting_prompt"},
        {S::defaultPermissiveAllow, "default_permissive_allow"},
        {S::defaultBlockingDrop, "default_blocking_drop"},
        {S::promptFallback, "prompt_fallback"},
        {S::unsupportedFallback, "unsupported_fallback"},
    }};
};

struct FlowFilterEvent {
    Uuid id;
    Date recordedAt{};
    FlowFilterMode mode = FlowFilterMode::monitor;
    std::optional<UnknownTrafficMode> unknownTrafficMode;
    FlowFilterEventKind kind = FlowFilterEventKind::observed;
    std::string summary;  // one human-readable line
    FlowContext context;
    std::optional<FlowDecision> decision;  // for decided events
    std::optional<FlowFilterDecisionSource> decisionSource;
    std::optional<std::string> sourceAppIdentifier;
    std::optional<std::string> sourceAppVersion;
    std::optional<std::string> url;

    bool operator==(const FlowFilterEvent&) const = default;
};

template <>
struct JsonFields<FlowFilterEvent> {
    using T = FlowFilterEvent;
    static constexpr auto fields = std::tuple{
        jsonField("id", &T::id),
        jsonField("recordedAt", &T::recordedAt),
        jsonField("mode", &T::mode),
        jsonField("unknownTrafficMode", &T::unknownTrafficMode),
        jsonField("kind", &T::kind),
        jsonField("summary", &T::summary),
        jsonField("context", &T::context),
        jsonField("decision", &T::decision),
        jsonField("decisionSource", &T::decisionSource),
        jsonField("sourceAppIdentifier", &T::sourceAppIdentifier),
        jsonField("sourceAppVersion", &T::sourceAppVersion),
        jsonField("url", &T::url),
    };
};

// The content of the filter's event snapshot file.
struct FlowFilterEventSnapshot {
    Date generatedAt{};
    std::vector<FlowFilterEvent> events;

    bool operator==(const FlowFilterEventSnapshot&) const = default;
};

template <>
struct JsonFields<FlowFilterEventSnapshot> {
    using T = FlowFilterEventSnapshot;
    static constexpr auto fields = std::tuple{
        jsonField("generatedAt", &T::generatedAt),
        jsonField("events", &T::events),
    };
};

}  // namespace quillfort
