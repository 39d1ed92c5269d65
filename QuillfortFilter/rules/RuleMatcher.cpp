#include "QuillfortFilter/rules/RuleMatcher.hpp"

#include <algorithm>

#include "model/Text.hpp"

namespace quillfort::RuleMatcher {

namespace {

const ProcessIdentity* identityOf(const FlowFacts& facts) {
    return facts.process ? &facts.process->identity : nullptr;
}

bool optionalEquals(const std::optional<std::string>& field, const std::string* value) {
    return value && field && *field == *value;
}

template <class Predicate>
bool anyAncestor(const FlowFacts& facts, Predicate predicate) {
    return std::any_of(facts.ancestors.begin(), facts.ancestors.end(),
                       [&](const ProcessNode* node) { return node && predicate(*node); });
}

bool cwdBeginsWith(const std::optional<std::string>& cwd, const std::string& prefix) {
    if (!cwd || prefix.empty() || !cwd->starts_with(prefix)) return false;
    // "/home/a" is the prefix of "/home/a" and "/home/a/src", not of "/home/ab".
    return cwd->size() == prefix.size() || prefix.back() == '/' || (*cwd)[prefix.size()] == '/';
}

bool globAt(std::string_view pattern, std::string_view text, bool pathSeparator) {
    // Iterative matching with one backtracking point per star kind: linear in
    // practice, and never recursive however the pattern is written.
    std::size_t p = 0, t = 0;
    std::size_t starP = std::string_view::npos, starT = 0;
    bool starCrossesSlash = false;
    while (t < text.size()) {
        if (p < pattern.size() && pattern[p] == '*') {
            starCrossesSlash = !pathSeparator || (p + 1 < pattern.size() && pattern[p + 1] == '*');
            while (p < pattern.size() && pattern[p] == '*') ++p;
            starP = p;
            starT = t;
            continue;
        }
        if (p < pattern.size() && (pattern[p] == text[t] || (pattern[p] == '?' && !(pathSeparator && text[t] == '/')))) {
            ++p;
            ++t;
            continue;
        }
        if (starP != std::string_view::npos && (starCrossesSlash || text[starT] != '/')) {
            p = starP;
            t = ++starT;
            continue;
        }
        return false;
    }
    while (p < pattern.size() && pattern[p] == '*') ++p;
    return p == pattern.size();
}

}  // namespace

std::string canonicalHost(std::string_view host) {
    std::string lowered = text::lowercased(text::trimmed(host));
    while (!lowered.empty() && lowered.back() == '.') lowered.pop_back();
    return lowered;
}

std::string suffixDomain(std::string_view value) {
    std::string domain = text::removingAll(text::trimmed(value), "*.");
    return std::string(text::trimmedCharacters(text::lowercased(domain), "."));
}

bool globMatches(std::string_view pattern, std::string_view text, bool pathSeparator) {
    return globAt(pattern, text, pathSeparator);
}

bool subjectHolds(const RuleSubject& subject, const FlowFacts& facts) {
    using K = RuleSubject::Kind;
    const ProcessIdentity* process = identityOf(facts);
    const std::string* value = subject.text();
    switch (subject.kind) {
        case K::exactExecutable: return process && value && process->executablePath == *value;
        case K::pathGlob: return process && value && globMatches(*value, process->executablePath, true);
        case K::bundleID: return process && optionalEquals(process->bundleID, value);
        case K::signingID: return process && optionalEquals(process->signingID, value);
        case K::teamID: return process && optionalEquals(process->teamID, value);
        case K::cdHash:
            return process && value && process->cdHash && text::lowercased(*value) == *process->cdHash;
        case K::processTag: return facts.process && subject.tag() && facts.process->tags.contains(*subject.tag());
        case K::ancestorBundleID:
            return anyAncestor(facts, [&](const ProcessNode& n) { return optionalEquals(n.identity.bundleID, value); });
        case K::ancestorSigningID:
            return anyAncestor(facts, [&](const ProcessNode& n) { return optionalEquals(n.identity.signingID, value); });
        case K::ancestorProcessTag:
            return subject.tag() && anyAncestor(facts, [&](const ProcessNode& n) { return n.tags.contains(*subject.tag()); });
        case K::cwdPrefix: return process && value && cwdBeginsWith(process->cwd, *value);
        case K::scriptPathSuffix:
            return process && value && !value->empty() && process->scriptPath && process->scriptPath->ends_with(*value);
        case K::ttyPresent: return process && subject.flag() && process->tty.has_value() == *subject.flag();
    }
    return false;
}

bool destinationHolds(const RuleDestination& destination, const FlowFacts& facts) {
    using K = RuleDestination::Kind;
    const std::string* value = destination.text();
    switch (destination.kind) {
        case K::hostnameExact: {
            if (!value) return false;
            const std::string wanted = canonicalHost(*value);
            return !wanted.empty() && std::find(facts.hostNames.begin(), facts.hostNames.end(), wanted) != facts.hostNames.end();
        }
        case K::hostnameSuffix: {
            if (!value) return false;
            const std::string domain = suffixDomain(*value);
            if (domain.empty()) return false;
            const std::string dotted = "." + domain;
            return std::any_of(facts.hostNames.begin(), facts.hostNames.end(), [&](const std::string& name) {
                return name == domain || name.ends_with(dotted);
            });
        }
        case K::hostnameGlob: {
            if (!value) return false;
            const std::string pattern = canonicalHost(*value);
            return std::any_of(facts.hostNames.begin(), facts.hostNames.end(),
                               [&](const std::string& name) { return globMatches(pattern, name, false); });
        }
        case K::ipCIDR: {
            if (!value || !facts.remoteAddress) return false;
            auto network = IpNetwork::parse(text::trimmed(*value));
            return network && network->contains(*facts.remoteAddress);
        }
        case K::portExact: return facts.port && destination.port() == facts.port;
        case K::portRange: {
            const auto* range = std::get_if<PortRange>(&destination.value);
            return range && facts.port && range->contains(*facts.port);
        }
        case K::transportProtocol: {
            const auto* protocol = std::get_if<TransportProtocol>(&destination.value);
            return protocol && *protocol == facts.protocol;
        }
        case K::direction: {
            const auto* direction = std::get_if<FlowDirection>(&destination.value);
            return direction && *direction == facts.direction;
        }
    }
    return false;
}

bool matches(const Rule& rule, const FlowFacts& facts) {
    return std::all_of(rule.subject.begin(), rule.subject.end(),
                       [&](const RuleSubject& s) { return subjectHolds(s, facts); }) &&
           std::all_of(rule.destination.begin(), rule.destination.end(),
                       [&](const RuleDestination& d) { return destinationHolds(d, facts); });
}

}  // namespace quillfort::RuleMatcher
