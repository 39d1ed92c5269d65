#include "QuillfortFilter/rules/RuleIndex.hpp"

#include <algorithm>
#include <string_view>

#include "model/Text.hpp"

namespace quillfort {

namespace {

int actionRank(RuleAction action) {
    switch (action) {
        case RuleAction::drop: return 2;
        case RuleAction::ask: return 1;
        case RuleAction::allow: return 0;
    }
    return 0;
}

bool ruleReadsCodeIdentity(const Rule& rule) {
    using K = RuleSubject::Kind;
    return std::any_of(rule.subject.begin(), rule.subject.end(), [](const RuleSubject& s) {
        return s.kind == K::signingID || s.kind == K::teamID || s.kind == K::cdHash || s.kind == K::ancestorSigningID;
    });
}

}  // namespace

RuleIndex::RuleIndex(std::vector<Rule> rules) {
    for (auto& rule : rules)
        if (rule.enabled) rules_.push_back(std::move(rule));
    rebuild();
}

void RuleIndex::rebuild() {
    byHost_.clear();
    byExecutable_.clear();
    byDomain_.clear();
    byNetwork_.clear();
    byPort_.clear();
    unfiled_.clear();
    readsCodeIdentity_ = false;
    for (std::size_t position = 0; position < rules_.size(); ++position) file(position);
}

void RuleIndex::file(std::size_t position) {
    const Rule& rule = rules_[position];
    readsCodeIdentity_ = readsCodeIdentity_ || ruleReadsCodeIdentity(rule);
    using D = RuleDestination::Kind;
    auto destination = [&](D kind) -> const RuleDestination* {
        auto found = std::find_if(rule.destination.begin(), rule.destination.end(),
                                  [kind](const RuleDestination& d) { return d.kind == kind; });
        return found == rule.destination.end() ? nullptr : &*found;
    };
    // The most selective condition first: a flow has few host names, one
    // executable, a handful of domains, one address and one port.
    if (const auto* host = destination(D::hostnameExact); host && host->text()) {
        byHost_[RuleMatcher::canonicalHost(*host->text())].push_back(position);
        return;
    }
    auto executable = std::find_if(rule.subject.begin(), rule.subject.end(), [](const RuleSubject& s) {
        return s.kind == RuleSubject::Kind::exactExecutable && s.text();
    });
    if (executable != rule.subject.end()) {
        byExecutable_[*executable->text()].push_back(position);
        return;
    }
    if (const auto* suffix = destination(D::hostnameSuffix); suffix && suffix->text()) {
        // An empty domain names nothing: such a rule never matches, and is not filed.
        if (auto domain = RuleMatcher::suffixDomain(*suffix->text()); !domain.empty())
            byDomain_[domain].push_back(position);
        return;
    }
    if (const auto* cidr = destination(D::ipCIDR); cidr && cidr->text()) {
        // A network that does not parse names nothing either.
        if (auto network = IpNetwork::parse(text::trimmed(*cidr->text())))
            byNetwork_[network->prefixLength][network->address].push_back(position);
        return;
    }
    if (const auto* port = destination(D::portExact); port && port->port()) {
        byPort_[*port->port()].push_back(position);
        return;
    }
    unfiled_.push_back(position);
}

void RuleIndex::add(Rule rule) {
    if (!rule.enabled) return;
    auto same = std::find_if(rules_.begin(), rules_.end(), [&](const Rule& r) { return r.id == rule.id; });
    if (same != rules_.end()) {
        rules_.erase(same);
        rules_.push_back(std::move(rule));
        rebuild();
        return;
    }
    rules_.push_back(std::move(rule));
    file(rules_.size() - 1);
}

bool RuleIndex::precedes(const Rule& candidate, std::size_t candidatePosition, const Rule& incumbent,
                         std::size_t incumbentPosition) {
    if (candidate.priority != incumbent.priority) return candidate.priority > incumbent.priority;
    const auto candidateConditions = candidate.subject.size() + candidate.destination.size();
    const auto incumbentConditions = incumbent.subject.size() + incumbent.destination.size();
    if (candidateConditions != incumbentConditions) return candidateConditions > incumbentConditions;
    if (actionRank(candidate.action) != actionRank(incumbent.action))
        return actionRank(candidate.action) > actionRank(incumbent.action);
    return candidatePosition < incumbentPosition;
}

const Rule* RuleIndex::decide(const FlowFacts& facts) const {
    std::size_t best = rules_.size();
    auto consider = [&](const std::vector<std::size_t>& positions) {
        for (std::size_t position : positions) {
            if (position == best) continue;
            const Rule& rule = rules_[position];
            if (best != rules_.size() && !precedes(rule, position, rules_[best], best)) continue;
            if (RuleMatcher::matches(rule, facts)) best = position;
        }
    };
    auto lookup = [&](const auto& map, const auto& key) {
        if (auto found = map.find(key); found != map.end()) consider(found->second);
    };
    for (const auto& name : facts.hostNames) {
        lookup(byHost_, name);
        // Every domain the name lies in: "a.example.com" itself, "example.com", "com".
        for (std::string_view rest = name; !rest.empty();) {
            lookup(byDomain_, std::string(rest));
            const auto dot = rest.find('.');
            if (dot == std::string_view::npos) break;
            rest.remove_prefix(dot + 1);
        }
    }
    if (facts.process) lookup(byExecutable_, facts.process->identity.executablePath);
    if (facts.remoteAddress) {
        const IpAddress address = facts.remoteAddress->unmapped();
        for (const auto& [length, networks] : byNetwork_) lookup(networks, IpNetwork::of(address, length).address);
    }
    if (facts.port) lookup(byPort_, *facts.port);
    consider(unfiled_);
    return best == rules_.size() ? nullptr : &rules_[best];
}

}  // namespace quillfort
