// How `quillfort rules` shows the shared rule snapshot: one line per rule with
// its conditions in short "key=value" forms.
#pragma once

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

// A heading with the snapshot's time and rule count, then a table of action,
// scope, name (a disabled rule marked "[disabled]") and conditions, in the
// snapshot's order. "No rules yet." when the snapshot holds none.
[[nodiscard]] std::string formatRuleTable(const RuleSnapshotEnvelope& snapshot);

}  // namespace quillfort::RuleFormatting
