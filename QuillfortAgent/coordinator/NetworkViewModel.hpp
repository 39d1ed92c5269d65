// What the network view shows of the filter's flow events, as plain functions:
// one row of texts per decided flow, the filters over them, and the prompt
// request that makes a rule from a flow the way the filter's own prompt would.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "contracts/FlowFilterEvent.hpp"
#include "contracts/FlowPromptMessages.hpp"
#include "model/Rule.hpp"

namespace quillfort {

enum class FlowDecisionFilter { all, allowed, blocked };

struct FlowRow {
    std::string time;      // as the view's clock formats `recordedAt`
    std::string process;   // "curl (4242)", "the kernel", "unknown process"
    std::string host;      // "api.example.com", "?" when unknown
    std::string port;      // "443", "" when none
    std::string protocol;  // "TCP", "UDP"
    std::string decision;  // "Allowed", "Blocked", "Asked", "—"
    bool blocked = false;
    std::string source;    // "Rule", "Prompt answer", "Default: block", ...
    std::string rule;      // the deciding rule's name, its short id when it is gone, "" for none

    bool operator==(const FlowRow&) const = default;
};

namespace NetworkViewModel {

using TimeFormatter = std::function<std::string(Date)>;

[[nodiscard]] FlowRow row(const FlowFilterEvent& event, const std::map<Uuid, std::string>& ruleNames,
                          const TimeFormatter& formatTime);
// The rules' names by id, for the "rule" column.
[[nodiscard]] std::map<Uuid, std::string> ruleNames(const std::vector<Rule>& rules);

// Whether the event is a decided flow that `text` (blank: any) finds in its
// process or host, without regard to case, and whose decision `filter` lets through.
[[nodiscard]] bool matches(const FlowFilterEvent& event, std::string_view text, FlowDecisionFilter filter);
// Indexes into `events` of the matching ones, newest first.
[[nodiscard]] std::vector<std::size_t> visibleEvents(const std::vector<FlowFilterEvent>& events, std::string_view text,
                                                     FlowDecisionFilter filter);

// What the filters look at of each event, worded once per snapshot, so that
// a key typed in the filter field costs a substring search per event and no more.
struct FlowSearchIndex {
    enum class Decision : std::uint8_t { none, allowed, blocked };
    std::vector<std::string> text;  // lower-cased process, host, path and bundle
    std::vector<Decision> decision;
};
[[nodiscard]] FlowSearchIndex searchIndex(const std::vector<FlowFilterEvent>& events);
[[nodiscard]] std::vector<std::size_t> visibleEvents(const FlowSearchIndex& index, std::string_view text,
                                                     FlowDecisionFilter filter);

[[nodiscard]] std::string_view sourceTitle(FlowFilterDecisionSource source);
[[nodiscard]] std::string_view filterTitle(FlowDecisionFilter filter);
// "1,000 flows", "12 of 1,000 flows", "No flows yet."
[[nodiscard]] std::string countText(std::size_t shown, std::size_t total);

// A prompt request for the flow of `event`, as the filter would have sent it:
// its context (process, ancestors, host, port), a fresh id and `now`.
[[nodiscard]] FlowPromptRequest ruleRequest(const FlowFilterEvent& event, const Uuid& id, Date now);

}  // namespace NetworkViewModel

}  // namespace quillfort
