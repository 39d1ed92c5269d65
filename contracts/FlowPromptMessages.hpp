// The messages of one prompt exchange between the filter side and the prompt
// agent: the request, the answer, the facets a new rule should match, the
// signer-change notice and the canned answers used for unattended runs.
#pragma once

#include <optional>
#include <string>

#include "model/FlowContext.hpp"
#include "model/Json.hpp"
#include "model/Rule.hpp"

namespace quillfort {

struct FlowPromptRequest {
    Uuid id;
    FlowContext context;
    std::optional<Rule> suggestedRule;

    bool operator==(const FlowPromptRequest&) const = default;
};

enum class FlowPromptHostMatchMode { none, exact, suffix };
template <>
struct EnumTraits<FlowPromptHostMatchMode> {
    static constexpr std::array<std::pair<FlowPromptHostMatchMode, std::string_view>, 3> entries{{
        {FlowPromptHostMatchMode::none, "none"},
        {FlowPromptHostMatchMode::exact, "exact"},
        {FlowPromptHostMatchMode::suffix, "suffix"},
    }};
};

struct FlowPromptRuleSelection {
    bool includeExactProcess = false;
    bool includeSigner = false;
    bool includeAncestorApp = false;
    bool includeProcessTag = false;
    FlowPromptHostMatchMode hostMatchMode = FlowPromptHostMatchMode::none;
    std::optional<std::string> hostPatternOverride;
    bool includePortExact = false;
    bool includeProtocol = false;

    bool operator==(const FlowPromptRuleSelection&) const = default;
};

struct FlowPromptResponse {
    Uuid promptID;
    RuleAction action = RuleAction::allow;
    RuleScope scope = RuleScope::temporary;
    bool persist = false;  // true exactly when scope is persistent; resolution reads scope
    std::optional<FlowPromptRuleSelection> ruleSelection;
    std::optional<Rule> suggestedRule;

    bool operator==(const FlowPromptResponse&) const = default;
};

// An existing rule that matches the prompted flow in everything but its signer.
struct FlowPromptSignerChangeCandidate {
    Uuid existingRuleID;
    std::string existingRuleName;
    std::string previousSigner;

    bool operator==(const FlowPromptSignerChangeCandidate&) const = default;
};

enum class FlowPromptAutomationPreset { allowOnce, allowSession, allowPermanent, blockOnce, blockSession, blockPermanent };
template <>
struct EnumTraits<FlowPromptAutomationPreset> {
    using P = FlowPromptAutomationPreset;
    static constexpr std::array<std::pair<P, std::string_view>, 6> entries{{
        {P::allowOnce, "allow-once"},
        {P::allowSession, "allow-session"},
        {P::allowPermanent, "allow-permanent"},
        {P::blockOnce, "block-once"},
        {P::blockSession, "block-session"},
        {P::blockPermanent, "block-permanent"},
    }};
};

template <>
struct JsonFields<FlowPromptRequest> {
    using T = FlowPromptRequest;
    static constexpr auto fields = std::tuple{
        jsonField("id", &T::id),
        jsonField("context", &T::context),
        jsonField("suggestedRule", &T::suggestedRule),
    };
};

template <>
struct JsonFields<FlowPromptRuleSelection> {
    using T = FlowPromptRuleSelection;
    static constexpr auto fields = std::tuple{
        jsonField("includeExactProcess", &T::includeExactProcess),
        jsonField("includeSigner", &T::includeSigner),
        jsonField("includeAncestorApp", &T::includeAncestorApp),
        jsonField("includeProcessTag", &T::includeProcessTag),
        jsonField("hostMatchMode", &T::hostMatchMode),
        jsonField("hostPatternOverride", &T::hostPatternOverride),
        jsonField("includePortExact", &T::includePortExact),
        jsonField("includeProtocol", &T::includeProtocol),
    };
};

template <>
struct JsonFields<FlowPromptResponse> {
    using T = FlowPromptResponse;
    static constexpr auto fields = std::tuple{
        jsonField("promptID", &T::promptID),
        jsonField("action", &T::action),
        jsonField("scope", &T::scope),
        jsonField("persist", &T::persist),
        jsonField("ruleSelection", &T::ruleSelection),
        jsonField("suggestedRule", &T::suggestedRule),
    };
};

template <>
struct JsonFields<FlowPromptSignerChangeCandidate> {
    using T = FlowPromptSignerChangeCandidate;
    static constexpr auto fields = std::tuple{
        jsonField("existingRuleID", &T::existingRuleID),
        jsonField("existingRuleName", &T::existingRuleName),
        jsonField("previousSigner", &T::previousSigner),
    };
};

}  // namespace quillfort
