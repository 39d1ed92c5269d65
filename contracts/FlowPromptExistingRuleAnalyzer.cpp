#include "contracts/FlowPromptExistingRuleAnalyzer.hpp"

#include <algorithm>
#include <string>
#include <string_view>

#include "model/Text.hpp"

namespace quillfort::FlowPromptExistingRuleAnalyzer {
namespace {

const ProcessNode* process(const FlowPromptRequest& request) {
    return request.context.matchedProcessNode ? &*request.context.matchedProcessNode : nullptr;
}

template <class Predicate>
bool anyAncestor(const FlowPromptRequest& request, Predicate predicate) {
    return std::ranges::any_of(request.context.ancestorChain, predicate);
}

enum class Signer { ignored, compared };

bool subjectHolds(const RuleSubject& condition, const FlowPromptRequest& request, Signer signer) {
    using K = RuleSubject::Kind;
    const ProcessNode* node = process(request);
    const std::string* text = condition.text();
    const auto tag = condition.tag();
    switch (condition.kind) {
        case K::exactExecutable: return node != nullptr && text != nullptr && node->identity.executablePath == *text;
        case K::signingID:
            // Ignored when looking for a rule whose signer may have changed.
            if (signer == Signer::ignored) return true;
            return node != nullptr && text != nullptr && node->identity.signingID == *text;
        case K::processTag: return node != nullptr && tag && node->tags.contains(*tag);
        case K::ancestorBundleID:
            return text != nullptr &&
                   anyAncestor(request, [&](const ProcessNode& a) { return a.identity.bundleID == *text; });
        case K::ancestorSigningID:
            return text != nullptr &&
                   anyAncestor(request, [&](const ProcessNode& a) { return a.identity.signingID == *text; });
        case K::ancestorProcessTag:
            return tag && anyAncestor(request, [&](const ProcessNode& a) { return a.tags.contains(*tag); });
        // Facets the prompt does not let us judge reliably: a rule that uses
        // them is never taken for the prompted flow's rule.
        case K::pathGlob:
        case K::bundleID:
        case K::teamID:
        case K::cdHash:
        case K::cwdPrefix:
        case K::scriptPathSuffix:
        case K::ttyPresent: return false;
    }
    return false;
}

// A domain condition holds for the bare domain and for every name below it,
// but not for a name that merely ends in the same letters (badexample.com).
bool suffixHolds(const std::string& pattern, const std::optional<std::string>& host) {
    const std::string reduced = text::removingAll(text::trimmed(pattern), "*.");
    if (!host || reduced.empty()) return false;
    const std::string suffix = reduced.front() == '.' ? reduced : "." + reduced;
    if (*host == text::trimmedCharacters(reduced, ".")) return true;
    return host->ends_with(suffix);
}

bool destinationHolds(const RuleDestination& condition, const FlowPromptRequest& request) {
    using K = RuleDestination::Kind;
    const FlowContext& context = request.context;
    const std::string* text = condition.text();
    switch (condition.kind) {
        case K::hostnameExact: {
            const auto host = context.host();
            return host && text != nullptr && *host == *text;
        }
        case K::hostnameSuffix: return text != nullptr && suffixHolds(*text, context.host());
        case K::portExact: {
            const auto port = context.port();
            return port && condition.port() == port;
        }
        case K::transportProtocol: {
            const auto* protocol = std::get_if<TransportProtocol>(&condition.value);
            return protocol != nullptr && *protocol == context.flow.transportProtocol;
        }
        case K::hostnameGlob:
        case K::ipCIDR:
        case K::portRange:
        case K::direction: return false;
    }
    return false;
}

// The signer a rule records: its first non-empty signer condition.
const std::string* recordedSigner(const Rule& rule) {
    for (const auto& condition : rule.subject) {
        if (condition.kind != RuleSubject::Kind::signingID) continue;
        if (const std::string* value = condition.text(); value != nullptr && !value->empty()) return value;
    }
    return nullptr;
}

}  // namespace

bool subjectMatchesWithoutSigner(const std::vector<RuleSubject>& subject, const FlowPromptRequest& request) {
    return std::ranges::all_of(
        subject, [&](const RuleSubject& condition) { return subjectHolds(condition, request, Signer::ignored); });
}

bool destinationMatches(const std::vector<RuleDestination>& destination, const FlowPromptRequest& request) {
    return std::ranges::all_of(destination,
                               [&](const RuleDestination& condition) { return destinationHolds(condition, request); });
}

std::optional<FlowPromptSignerChangeCandidate> signerChangeCandidate(const FlowPromptRequest& request,
                                                                     const std::vector<Rule>& existingRules) {
    const ProcessNode* node = process(request);
    if (node == nullptr || node->identity.executablePath.empty()) return std::nullopt;
    const auto& currentSigner = node->identity.signingID;
    if (!currentSigner || currentSigner->empty()) return std::nullopt;

    const RuleSubject sameExecutable = RuleSubject::exactExecutable(node->identity.executablePath);
    for (const Rule& rule : existingRules) {
        const std::string* signer = recordedSigner(rule);
        if (signer == nullptr || *signer == *currentSigner) continue;
        if (subjectMatchesWithoutSigner(rule.subject, request) && destinationMatches(rule.destination, request) &&
            std::ranges::find(rule.subject, sameExecutable) != rule.subject.end()) {
            return FlowPromptSignerChangeCandidate{rule.id, rule.name, *signer};
        }
    }
    return std::nullopt;
}

Rule ruleUpdatingSigner(const FlowPromptRequest& request, const std::vector<Rule>& existingRules,
                        const Uuid& existingRuleID, Rule replacementRule) {
    const ProcessNode* node = process(request);
    if (node == nullptr || !node->identity.signingID) return replacementRule;
    auto existing = std::ranges::find(existingRules, existingRuleID, &Rule::id);
    if (existing == existingRules.end()) return replacementRule;

    const std::string& currentSigner = *node->identity.signingID;
    Rule updated = std::move(replacementRule);
    updated.id = existing->id;
    updated.name = existing->name;
    updated.priority = existing->priority;
    updated.enabled = existing->enabled;
    for (auto& condition : updated.subject) {
        if (condition.kind == RuleSubject::Kind::signingID) condition.value = currentSigner;
    }
    if (recordedSigner(updated) == nullptr) updated.subject.push_back(RuleSubject::signingID(currentSigner));
    return updated;
}

bool ruleDecides(const Rule& rule, const FlowPromptRequest& request) {
    return rule.enabled &&
           std::ranges::all_of(rule.subject,
                               [&](const RuleSubject& c) { return subjectHolds(c, request, Signer::compared); }) &&
           destinationMatches(rule.destination, request);
}

}  // namespace quillfort::FlowPromptExistingRuleAnalyzer
