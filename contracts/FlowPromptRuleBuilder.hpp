// Turns a prompt and the user's answer into the rule that the answer creates,
// and proposes the facets a new rule matches when the decision view opens.
#pragma once

#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "contracts/FlowPromptMessages.hpp"
#include "model/FlowContext.hpp"
#include "model/Rule.hpp"
#include "model/Uuid.hpp"

namespace quillfort::FlowPromptRuleBuilder {

// The selection the decision view opens with: every facet the flow actually
// has, the host matched exactly.
[[nodiscard]] FlowPromptRuleSelection defaultSelection(const FlowPromptRequest& request);

// The rule a session or permanent answer creates; nothing for a one-time
// (`temporary`) answer. The rule's id comes from `ids`.
[[nodiscard]] std::optional<Rule> buildSuggestedRule(const FlowPromptRequest& request, RuleAction action,
                                                     RuleScope scope, const FlowPromptRuleSelection& selection,
                                                     UuidSource& ids = *randomUuidSource());

// The pieces below are what the rule and its name are made of; views use them
// to show the same names.

// The first of the sorted tags of the attributed process, else of the first
// tagged ancestor.
[[nodiscard]] std::optional<ProcessTag> preferredProcessTag(const FlowContext& context);

// The far host exactly as the flow names it (no trimming or case change).
[[nodiscard]] std::optional<std::string> matchedHost(const FlowContext& context);

// The part of a host a domain rule names: ".example.com" for api.example.com,
// ".example.co.uk" for a.b.example.co.uk, a single-label host unchanged.
[[nodiscard]] std::string hostnameSuffix(std::string_view host);

// A suffix pattern as a rule stores it: trimmed, every "*." removed, a leading
// "." added unless empty or already there.
[[nodiscard]] std::string normalizedSuffixPattern(std::string_view pattern);

// "Allow curl -> api.example.com:443", "Drop node -> domain *.example.com on any port".
[[nodiscard]] std::string suggestedRuleName(const FlowPromptRequest& request, RuleAction action,
                                            const FlowPromptRuleSelection& selection);

// Tags ascending by raw string in code-point order (git, gradleDaemon, ..., warp).
[[nodiscard]] std::vector<ProcessTag> sortedProcessTags(const std::set<ProcessTag>& tags);

}  // namespace quillfort::FlowPromptRuleBuilder
