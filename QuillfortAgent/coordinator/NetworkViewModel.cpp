#include "QuillfortAgent/coordinator/NetworkViewModel.hpp"

#include <algorithm>
#include <cctype>

#include <fmt/format.h>

#include "model/Text.hpp"

namespace quillfort::NetworkViewModel {

namespace {

std::string lowered(std::string_view text) {
    std::string out(text);
    std::ranges::transform(out, out.begin(), [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return out;
}

std::string processText(const FlowContext& context) {
    if (!context.matchedProcessNode) return "unknown process";
    const auto& identity = context.matchedProcessNode->identity;
    if (identity.pid == 0) return "the kernel";
    std::string name(text::lastPathComponent(identity.executablePath));
    if (name.empty()) name = identity.bundleID.value_or("unknown process");
    return fmt::format("{} ({})", name, identity.pid);
}

std::string thousands(std::size_t n) {
    std::string digits = std::to_string(n);
    for (auto at = static_cast<std::ptrdiff_t>(digits.size()) - 3; at > 0; at -= 3) digits.insert(static_cast<std::size_t>(at), ",");
    return digits;
}

bool isBlocked(const FlowFilterEvent& event) {
    return event.decision && event.decision->action != FlowDecisionAction::allow;
}

}  // namespace

std::string_view sourceTitle(FlowFilterDecisionSource source) {
    using S = FlowFilterDecisionSource;
    switch (source) {
        case S::explicitRule: return "Rule";
        case S::promptResolution: return "Prompt answer";
        case S::permissiveLearnedRule: return "Learned rule";
        case S::bootstrapAllowlist: return "Built-in list";
        case S::internalBypass: return "Quillfort itself";
        case S::defaultAlertingPrompt: return "Default: ask";
        case S::defaultPermissiveAllow: return "Default: allow";
        case S::defaultBlockingDrop: return "Default: block";
        case S::promptFallback: return "No answer";
        case S::unsupportedFallback: return "Unsupported";
    }
    return "?";
}

std::string_view filterTitle(FlowDecisionFilter filter) {
    switch (filter) {
        case FlowDecisionFilter::all: return "All decisions";
        case FlowDecisionFilter::allowed: return "Allowed";
        case FlowDecisionFilter::blocked: return "Blocked";
    }
    return "?";
}

std::map<Uuid, std::string> ruleNames(const std::vector<Rule>& rules) {
    std::map<Uuid, std::string> names;
    for (const auto& rule : rules) names.emplace(rule.id, rule.name);
    return names;
}

FlowRow row(const FlowFilterEvent& event, const std::map<Uuid, std::string>& ruleNames, const TimeFormatter& formatTime) {
    FlowRow out;
    const auto& context = event.context;
    out.time = formatTime(event.recordedAt);
    out.process = processText(context);
    out.host = context.host().value_or("?");
    if (const auto port = context.port()) out.port = std::to_string(*port);
    out.protocol = std::string(rawValue(context.flow.transportProtocol));
    std::ranges::transform(out.protocol, out.protocol.begin(), [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
    if (event.decision) {
        switch (event.decision->action) {
            case FlowDecisionAction::allow: out.decision = "Allowed"; break;
            case FlowDecisionAction::prompt: out.decision = "Asked"; break;
            default: out.decision = "Blocked"; break;
        }
    } else {
        out.decision = "\u2014";
    }
    out.blocked = isBlocked(event);
    if (event.decisionSource) out.source = sourceTitle(*event.decisionSource);
    if (event.decision && event.decision->matchedRuleID) {
        const auto& id = *event.decision->matchedRuleID;
        const auto name = ruleNames.find(id);
        out.rule = name != ruleNames.end() ? name->second : id.uppercaseString().substr(0, 8) + " (deleted)";
    }
    return out;
}

namespace {

std::string searchText(const FlowFilterEvent& event) {
    const auto& context = event.context;
    std::string haystack = processText(context) + "\n" + context.host().value_or("");
    if (context.matchedProcessNode)
        haystack += "\n" + context.matchedProcessNode->identity.executablePath + "\n" +
                    context.matchedProcessNode->identity.bundleID.value_or("");
    return lowered(haystack);
}

FlowSearchIndex::Decision decisionOf(const FlowFilterEvent& event) {
    if (event.kind != FlowFilterEventKind::decided) return FlowSearchIndex::Decision::none;
    return isBlocked(event) ? FlowSearchIndex::Decision::blocked : FlowSearchIndex::Decision::allowed;
}

bool passes(FlowSearchIndex::Decision decision, const std::string& haystack, const std::string& needle,
            FlowDecisionFilter filter) {
    using D = FlowSearchIndex::Decision;
    if (decision == D::none) return false;
    if (filter == FlowDecisionFilter::allowed && decision != D::allowed) return false;
    if (filter == FlowDecisionFilter::blocked && decision != D::blocked) return false;
    return needle.empty() || haystack.find(needle) != std::string::npos;
}

}  // namespace

bool matches(const FlowFilterEvent& event, std::string_view text, FlowDecisionFilter filter) {
    return passes(decisionOf(event), searchText(event), lowered(text::trimmed(text)), filter);
}

FlowSearchIndex searchIndex(const std::vector<FlowFilterEvent>& events) {
    FlowSearchIndex index;
    index.text.reserve(events.size());
    index.decision.reserve(events.size());
    for (const auto& event : events) {
        index.text.push_back(searchText(event));
        index.decision.push_back(decisionOf(event));
    }
    return index;
}

std::vector<std::size_t> visibleEvents(const FlowSearchIndex& index, std::string_view text, FlowDecisionFilter filter) {
    const std::string needle = lowered(text::trimmed(text));
    std::vector<std::size_t> out;
    for (std::size_t i = index.text.size(); i-- > 0;)
        if (passes(index.decision[i], index.text[i], needle, filter)) out.push_back(i);
    return out;
}

std::vector<std::size_t> visibleEvents(const std::vector<FlowFilterEvent>& events, std::string_view text,
                                       FlowDecisionFilter filter) {
    return visibleEvents(searchIndex(events), text, filter);
}

std::string countText(std::size_t shown, std::size_t total) {
    if (total == 0) return "No flows yet.";
    const std::string_view noun = total == 1 ? "flow" : "flows";
    if (shown == total) return fmt::format("{} {}", thousands(total), noun);
    return fmt::format("{} of {} {}", thousands(shown), thousands(total), noun);
}

FlowPromptRequest ruleRequest(const FlowFilterEvent& event, const Uuid& id, Date now) {
    FlowPromptRequest request;
    request.id = id;
    request.context = event.context;
    request.context.flow.timestamp = now;
    return request;
}

}  // namespace quillfort::NetworkViewModel
