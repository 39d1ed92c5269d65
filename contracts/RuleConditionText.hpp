// Rule conditions in short "key=value" words, as the tool's rule table, the
// agent's rule list and its bus interface all show them.
#pragma once

#include <string>

#include "model/Rule.hpp"

namespace quillfort::RuleConditionText {

// "exec=/usr/bin/curl", "signer=com.apple.curl", "tag=shell", "host=example.com",
// "domain=example.com", "ports=1000-2000", "proto=tcp", "tty=yes", ...
[[nodiscard]] std::string conditionText(const RuleSubject& subject);
[[nodiscard]] std::string conditionText(const RuleDestination& destination);

// Subject conditions, then destination conditions, separated by blanks;
// "(any)" for a rule without conditions.
[[nodiscard]] std::string conditionsText(const Rule& rule);

}  // namespace quillfort::RuleConditionText
