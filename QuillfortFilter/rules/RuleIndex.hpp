// The enabled rules of a snapshot, indexed so that deciding a flow costs the
// same with ten rules as with ten thousand: each rule is filed under its most
// selective condition (exact host, executable, domain, network, port) and a
// flow looks only at the rules filed under its own host names, executable,
// domains, address and port, plus the few rules that name none of these.
//
// Precedence among the rules that match: the higher priority wins; at equal
// priority the rule with more conditions (the more specific one); then drop
// before ask before allow; then the rule earlier in the snapshot.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <unordered_map>
#include <vector>

#include "QuillfortFilter/rules/RuleMatcher.hpp"
#include "model/Rule.hpp"

namespace quillfort {

class RuleIndex {
public:
    RuleIndex() = default;
    // Disabled rules are left out; the order of `rules` is the snapshot's.
    explicit RuleIndex(std::vector<Rule> rules);

    // The rule that decides the flow, or nothing when none matches.
    [[nodiscard]] const Rule* decide(const FlowFacts& facts) const;

    // Adds one rule, as the last of the snapshot (a prompt's answer, before
    // the snapshot that holds it is read back). A rule with the same id is replaced.
    void add(Rule rule);

    [[nodiscard]] std::size_t size() const noexcept { return rules_.size(); }
    // Whether any rule asks for a code identity (hash or signer), so that the
    // filter computes them only when something reads them.
    [[nodiscard]] bool readsCodeIdentity() const noexcept { return readsCodeIdentity_; }

    // True when `candidate` takes precedence over `incumbent` (both matching).
    [[nodiscard]] static bool precedes(const Rule& candidate, std::size_t candidatePosition, const Rule& incumbent,
                                       std::size_t incumbentPosition);

private:
    void file(std::size_t position);
    void rebuild();

    std::vector<Rule> rules_;
    std::unordered_map<std::string, std::vector<std::size_t>> byHost_;
    std::unordered_map<std::string, std::vector<std::size_t>> byExecutable_;
    std::unordered_map<std::string, std::vector<std::size_t>> byDomain_;
    // Prefix length -> masked network -> rules, per address family.
    std::map<std::uint8_t, std::unordered_map<IpAddress, std::vector<std::size_t>>> byNetwork_;
    std::unordered_map<std::uint16_t, std::vector<std::size_t>> byPort_;
    std::vector<std::size_t> unfiled_;
    bool readsCodeIdentity_ = false;
};

}  // namespace quillfort
