// How `quillfort rules` shows the shared rule snapshot: one line per rule with
// its conditions in short "key=value" forms.
#pragma once

#include <map>
#include <string>

#include "contracts/RuleSnapshotEnvelope.hpp"
#include "model/Rule.hpp"

namespace quillfort::RuleFormatting {

// "exec=/usr/bin/curl", "signer=com.apple.curl", "tag=shell", "host=example.com",
// "domain=example.com", "ports=1000-2000", "proto=tcp", "tty=yes", ...
[[nodiscard]] std::string conditionText(const RuleSubject& subject);
[[nodiscard]] std::string conditionText(const RuleDestination& destination);

// Subject conditions, then destination conditions, separated by blanks;
// "(any)" for a rule without conditions.
[[nodiscard]] std::string conditionsText(const Rule& rule);

// The first eight characters of a rule's id: what the table shows and enough
// to name a rule to `quillfort rules enable|disable|delete|expire`.
[[nodiscard]] std::string shortID(const Uuid& id);

// A heading with the snapshot's time and rule count, then a table of short id,
// action, scope, name (a disabled rule marked "[disabled]"), conditions and,
// when any rule is timed, when each ends ("in 1 h", seen at `now`), in the
// snapshot's order. "No rules yet." when the snapshot holds none.
[[nodiscard]] std::string formatRuleTable(const RuleSnapshotEnvelope& snapshot,
                                          const std::map<Uuid, Date>& expiries = {}, Date now = {});

}  // namespace quillfort::RuleFormatting
