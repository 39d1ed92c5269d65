// When a rule's conditions hold for a flow, as the filter enforces rules:
// every subject and destination condition must hold. Host names compare
// without regard to case or a final dot, and against every name the flow is
// known by (the name the program asked for, the CNAMEs behind it, and the
// remote address as text), so a rule written for the name a user knows
// matches the edge server behind it.
#pragma once

#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "model/FlowContext.hpp"
#include "model/Rule.hpp"
#include "platform/IpAddress.hpp"

namespace quillfort {

// Everything a rule can ask about one flow. Pointers refer to data the
// caller keeps alive for the duration of the match.
struct FlowFacts {
    const ProcessNode* process = nullptr;           // absent: nobody could be named
    std::vector<const ProcessNode*> ancestors;      // nearest first
    std::vector<std::string> hostNames;             // lower-case; the address text last
    std::optional<IpAddress> remoteAddress;
    std::optional<std::uint16_t> port;              // the service port: remote outbound, local inbound
    TransportProtocol protocol = TransportProtocol::unknown;
    FlowDirection direction = FlowDirection::outbound;
};

namespace RuleMatcher {

// The process a rule names to mean traffic the kernel sends itself (tunnels,
// network file systems): `exactExecutable("[kernel]")`.
inline constexpr std::string_view kernelExecutable = "[kernel]";

[[nodiscard]] bool subjectHolds(const RuleSubject& subject, const FlowFacts& facts);
[[nodiscard]] bool destinationHolds(const RuleDestination& destination, const FlowFacts& facts);
[[nodiscard]] bool matches(const Rule& rule, const FlowFacts& facts);

// A host name as rules compare it: lower-case, without a final dot.
[[nodiscard]] std::string canonicalHost(std::string_view host);
// The domain a hostnameSuffix condition names: trimmed, "*." removed,
// leading and trailing dots dropped, lower-case; empty names nothing.
[[nodiscard]] std::string suffixDomain(std::string_view value);
// `*` matches any run of characters, `?` one character. With `pathSeparator`
// set, `*` and `?` stop at '/' and `**` crosses it.
[[nodiscard]] bool globMatches(std::string_view pattern, std::string_view text, bool pathSeparator);

}  // namespace RuleMatcher

}  // namespace quillfort
