#include "contracts/FlowPromptRuleBuilder.hpp"

#include <algorithm>
#include <array>

#include <fmt/format.h>

#include "model/Text.hpp"

namespace quillfort::FlowPromptRuleBuilder {
namespace {

// Second-level labels under which a two-letter country domain registers names
// (example.co.uk, example.com.au), so the registrable part has three labels.
constexpr std::array<std::string_view, 7> kSecondLevelLabels{"ac", "co", "com", "edu", "gov", "net", "org"};

// Stands in for the host in a domain name when the flow has no host at all.
constexpr std::string_view kAnyHost = "any-host";

std::optional<ProcessTag> firstSortedTag(const std::set<ProcessTag>& tags) {
    if (tags.empty()) return std::nullopt;
    return sortedProcessTags(tags).front();
}

// The user's pattern when there is one, else the registrable part of `host`.
std::string suffixPattern(const FlowPromptRuleSelection& selection, std::string_view host) {
    if (selection.hostPatternOverride) return normalizedSuffixPattern(*selection.hostPatternOverride);
    return normalizedSuffixPattern(hostnameSuffix(host));
}

std::string actionWord(RuleAction action) {
    std::string word(rawValue(action));
    if (!word.empty() && word.front() >= 'a' && word.front() <= 'z')
        word.front() = static_cast<char>(word.front() - 'a' + 'A');
    return word;
}

std::string hostText(const FlowPromptRuleSelection& selection, const std::optional<std::string>& host) {
    switch (selection.hostMatchMode) {
        case FlowPromptHostMatchMode::none: return "any destination";
        case FlowPromptHostMatchMode::exact:
            if (selection.hostPatternOverride) return *selection.hostPatternOverride;
            return host ? *host : std::string(kAnyHost);
        case FlowPromptHostMatchMode::suffix: {
            const std::string pattern = suffixPattern(selection, host ? std::string_view(*host) : kAnyHost);
            return fmt::format("domain *.{}", text::trimmedCharacters(pattern, "."));
        }
    }
    return {};
}

}  // namespace

std::vector<ProcessTag> sortedProcessTags(const std::set<ProcessTag>& tags) {
    std::vector<ProcessTag> sorted(tags.begin(), tags.end());
    std::ranges::sort(sorted, [](ProcessTag a, ProcessTag b) { return rawValue(a) < rawValue(b); });
    return sorted;
}

std::optional<ProcessTag> preferredProcessTag(const FlowContext& context) {
    if (context.matchedProcessNode) {
        if (auto tag = firstSortedTag(context.matchedProcessNode->tags)) return tag;
    }
    for (const auto& ancestor : context.ancestorChain) {
        if (auto tag = firstSortedTag(ancestor.tags)) return tag;
    }
    return std::nullopt;
}

std::optional<std::string> matchedHost(const FlowContext& context) { return context.host(); }

std::string hostnameSuffix(std::string_view host) {
    const auto pieces = text::splitNonEmpty(host, '.');
    if (pieces.size() < 2) return std::string(host);
    const std::size_t n = pieces.size();
    std::size_t keep = 2;
    if (n >= 3 && pieces[n - 1].size() == 2 &&
        std::ranges::find(kSecondLevelLabels, text::lowercased(pieces[n - 2])) != kSecondLevelLabels.end()) {
        keep = 3;
    }
    std::string suffix;
    for (std::size_t i = n - keep; i < n; ++i) {
        suffix += '.';
        suffix += pieces[i];
    }
    return suffix;
}

std::string normalizedSuffixPattern(std::string_view pattern) {
    std::string normalized = text::removingAll(text::trimmed(pattern), "*.");
    if (normalized.empty() || normalized.front() == '.') return normalized;
    return "." + normalized;
}

std::string suggestedRuleName(const FlowPromptRequest& request, RuleAction action,
                              const FlowPromptRuleSelection& selection) {
    const FlowContext& context = request.context;
    const std::string processWord =
        context.matchedProcessNode
            ? std::string(text::lastPathComponent(context.matchedProcessNode->identity.executablePath))
            : std::string("process");

    std::string portText;
    const auto port = context.port();
    if (selection.includePortExact && port) {
        portText = fmt::format(":{}", *port);
    } else if (selection.hostMatchMode != FlowPromptHostMatchMode::none) {
        portText = " on any port";
    }
    return fmt::format("{} {} -> {}{}", actionWord(action), processWord, hostText(selection, matchedHost(context)),
                       portText);
}

FlowPromptRuleSelection defaultSelection(const FlowPromptRequest& request) {
    const FlowContext& context = request.context;
    const auto host = matchedHost(context);
    FlowPromptRuleSelection selection;
    selection.includeExactProcess = context.matchedProcessNode.has_value();
    selection.includeSigner =
        context.matchedProcessNode && context.matchedProcessNode->identity.signingID.has_value();
    selection.includeAncestorApp = std::ranges::any_of(
        context.ancestorChain, [](const ProcessNode& node) { return node.identity.bundleID.has_value(); });
    selection.includeProcessTag = preferredProcessTag(context).has_value();
    selection.hostMatchMode = host ? FlowPromptHostMatchMode::exact : FlowPromptHostMatchMode::none;
    selection.hostPatternOverride = host;
    selection.includePortExact = context.port().has_value();
    selection.includeProtocol = context.flow.transportProtocol != TransportProtocol::unknown;
    return selection;
}

std::optional<Rule> buildSuggestedRule(const FlowPromptRequest& request, RuleAction action, RuleScope scope,
                                       const FlowPromptRuleSelection& selection, UuidSource& ids) {
    if (scope == RuleScope::temporary) return std::nullopt;  // one-time answers leave no rule behind
    const FlowContext& context = request.context;
    const ProcessIdentity* process = context.matchedProcessNode ? &context.matchedProcessNode->identity : nullptr;

    std::vector<RuleSubject> subject;
    if (selection.includeExactProcess && process != nullptr && !process->executablePath.empty())
        subject.push_back(RuleSubject::exactExecutable(process->executablePath));
    // Never the team identifier: a prompt answer is about this program, not
    // about everything its team signs.
    if (selection.includeSigner && process != nullptr && process->signingID && !process->signingID->empty())
        subject.push_back(RuleSubject::signingID(*process->signingID));
    if (selection.includeAncestorApp) {
        // Only the nearest ancestor that has a bundle identifier counts.
        auto withBundle = std::ranges::find_if(
            context.ancestorChain, [](const ProcessNode& node) { return node.identity.bundleID.has_value(); });
        if (withBundle != context.ancestorChain.end() && !withBundle->identity.bundleID->empty())
            subject.push_back(RuleSubject::ancestorBundleID(*withBundle->identity.bundleID));
    }
    if (selection.includeProcessTag) {
        if (auto tag = preferredProcessTag(context)) subject.push_back(RuleSubject::processTag(*tag));
    }

    std::vector<RuleDestination> destination;
    if (const auto host = matchedHost(context)) {
        switch (selection.hostMatchMode) {
            case FlowPromptHostMatchMode::none: break;
            case FlowPromptHostMatchMode::exact:
                destination.push_back(RuleDestination::hostnameExact(selection.hostPatternOverride.value_or(*host)));
                break;
            case FlowPromptHostMatchMode::suffix:
                // Added even when the user's pattern normalises to nothing; an
                // empty domain then matches no host rather than every host.
                destination.push_back(RuleDestination::hostnameSuffix(suffixPattern(selection, *host)));
                break;
        }
    }
    if (const auto port = context.port(); selection.includePortExact && port)
        destination.push_back(RuleDestination::portExact(*port));
    if (selection.includeProtocol && context.flow.transportProtocol != TransportProtocol::unknown)
        destination.push_back(RuleDestination::transportProtocol(context.flow.transportProtocol));

    Rule rule;
    rule.id = ids.next();
    rule.enabled = true;
    rule.name = suggestedRuleName(request, action, selection);
    rule.action = action;
    rule.subject = std::move(subject);
    rule.destination = std::move(destination);
    rule.scope = scope;
    rule.origin = RuleOrigin::promptResolved;
    rule.priority = 0;
    rule.notes = fmt::format("Generated from Quillfort prompt {}.", request.id.uppercaseString());
    return rule;
}

}  // namespace quillfort::FlowPromptRuleBuilder
