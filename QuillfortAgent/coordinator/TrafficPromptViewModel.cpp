#include "QuillfortAgent/coordinator/TrafficPromptViewModel.hpp"

#include <algorithm>
#include <utility>

#include <fmt/format.h>

#include "model/Text.hpp"

namespace quillfort {

namespace {

const ProcessIdentity* matchedProcess(const AgentPromptSession& session) {
    const auto& node = session.request.context.matchedProcessNode;
    return node ? &node->identity : nullptr;
}

std::string upper(std::string_view text) {
    std::string out(text);
    std::transform(out.begin(), out.end(), out.begin(),
                   [](unsigned char c) { return static_cast<char>(c >= 'a' && c <= 'z' ? c - 'a' + 'A' : c); });
    return out;
}

std::string joined(const std::vector<std::string>& parts, std::string_view separator) {
    std::string out;
    for (std::size_t i = 0; i < parts.size(); ++i) {
        if (i > 0) out += separator;
        out += parts[i];
    }
    return out;
}

std::string ancestorTitle(const ProcessNode& node) {
    if (node.identity.bundleID) return *node.identity.bundleID;
    if (node.identity.signingID) return *node.identity.signingID;
    return std::string(text::lastPathComponent(node.identity.executablePath));
}

// The value of a condition kind without a short form, readable enough for a
// user to recognise: "bundleID(com.example.app)".
struct ValueText {
    std::string operator()(const std::string& v) const { return v; }
    std::string operator()(ProcessTag v) const { return std::string(rawValue(v)); }
    std::string operator()(bool v) const { return v ? "true" : "false"; }
    std::string operator()(std::uint16_t v) const { return std::to_string(v); }
    std::string operator()(const PortRange& v) const { return fmt::format("{}-{}", v.lowerBound, v.upperBound); }
    std::string operator()(TransportProtocol v) const { return std::string(rawValue(v)); }
    std::string operator()(FlowDirection v) const { return std::string(rawValue(v)); }
};

template <class Condition>
std::string genericText(const Condition& condition) {
    return fmt::format("{}({})", rawValue(condition.kind), std::visit(ValueText{}, condition.value));
}

std::string hostLabelsSuffix(const std::vector<std::string_view>& labels, std::size_t from) {
    std::string out;
    for (std::size_t i = from; i < labels.size(); ++i) {
        if (i > from) out += '.';
        out += labels[i];
    }
    return out;
}

}  // namespace

namespace TrafficPromptViewModel {

std::string host(const AgentPromptSession& session) {
    return session.request.context.host().value_or("unknown");
}

std::string port(const AgentPromptSession& session) {
    return std::to_string(session.request.context.port().value_or(0));
}

std::string proto(const AgentPromptSession& session) {
    return upper(rawValue(session.request.context.flow.transportProtocol));
}

std::string processTitle(const AgentPromptSession& session) {
    const auto* process = matchedProcess(session);
    if (!process) return "Unknown";
    if (process->bundleID) return *process->bundleID;
    return std::string(text::lastPathComponent(process->executablePath));
}

std::string processPath(const AgentPromptSession& session) {
    const auto* process = matchedProcess(session);
    return process ? process->executablePath : "No path";
}

std::string signerTitle(const AgentPromptSession& session) {
    const auto* process = matchedProcess(session);
    return process && process->signingID ? *process->signingID : "unknown";
}

std::string tagsTitle(const AgentPromptSession& session) {
    const auto& node = session.request.context.matchedProcessNode;
    if (!node || node->tags.empty()) return "none";
    std::vector<std::string> names;
    for (const auto tag : node->tags) names.emplace_back(rawValue(tag));
    std::sort(names.begin(), names.end());  // by raw string, not by declaration order
    return joined(names, ", ");
}

std::string ancestorSummary(const AgentPromptSession& session) {
    const auto& chain = session.request.context.ancestorChain;
    if (chain.empty()) return "none";
    std::vector<std::string> names;
    names.reserve(chain.size());
    for (const auto& node : chain) names.push_back(ancestorTitle(node));
    return joined(names, " \u2192 ");
}

std::optional<std::string> signerChangeSummary(const AgentPromptSession& session) {
    const auto& candidate = session.signerChangeCandidate;
    if (!candidate) return std::nullopt;
    const auto* process = matchedProcess(session);
    const std::string current = process && process->signingID ? *process->signingID : "unknown signer";
    return fmt::format("Existing rule \"{}\" used signer {}. This process now reports {}.", candidate->existingRuleName,
                       candidate->previousSigner, current);
}

std::string conditionText(const RuleSubject& subject) {
    using K = RuleSubject::Kind;
    const std::string* value = subject.text();
    switch (subject.kind) {
        case K::exactExecutable:
            if (value) return "exec=" + *value;
            break;
        case K::signingID:
            if (value) return "signer=" + *value;
            break;
        case K::processTag:
            if (auto tag = subject.tag()) return "tag=" + std::string(rawValue(*tag));
            break;
        case K::ancestorBundleID:
            if (value) return "ancestor=" + *value;
            break;
        default:
            break;
    }
    return genericText(subject);
}

std::string conditionText(const RuleDestination& destination) {
    using K = RuleDestination::Kind;
    const std::string* value = destination.text();
    switch (destination.kind) {
        case K::hostnameExact:
            if (value) return "host=" + *value;
            break;
        case K::hostnameSuffix:
            if (value) return "domain=" + *value;
            break;
        case K::portExact:
            if (auto number = destination.port()) return "port=" + std::to_string(*number);
            break;
        case K::transportProtocol:
            if (const auto* protocol = std::get_if<TransportProtocol>(&destination.value)) {
                return "proto=" + std::string(rawValue(*protocol));
            }
            break;
        default:
            break;
    }
    return genericText(destination);
}

std::string previewText(const std::optional<Rule>& rule) {
    if (!rule) return "Once duration \u2014 no reusable rule.";
    std::vector<std::string> subject;
    for (const auto& condition : rule->subject) subject.push_back(conditionText(condition));
    std::vector<std::string> destination;
    for (const auto& condition : rule->destination) destination.push_back(conditionText(condition));
    return fmt::format("{} [{}] -> [{}] scope={}", rawValue(rule->action),
                       subject.empty() ? "any subject" : joined(subject, ", "),
                       destination.empty() ? "any destination" : joined(destination, ", "), rawValue(rule->scope));
}

std::string previewText(const AgentPromptSession& session) {
    return previewText(session.suggestedRule());
}

bool isLiteralAddress(std::string_view host) noexcept {
    return std::all_of(host.begin(), host.end(),
                       [](char c) { return (c >= '0' && c <= '9') || c == '.' || c == ':'; });
}

std::vector<HostScopeOption> hostScopeOptions(const AgentPromptSession& session) {
    const std::string flowHost = host(session);
    std::vector<HostScopeOption> options{
        {.id = std::string(anyHostScopeID), .title = "Any host", .mode = FlowPromptHostMatchMode::none, .pattern = {}}};
    const auto labels = text::splitNonEmpty(flowHost, '.');
    if (!isLiteralAddress(flowHost) && labels.size() >= 2) {
        for (std::size_t i = 1; i < labels.size(); ++i) {
            const std::string suffix = hostLabelsSuffix(labels, i);
            options.push_back({.id = "suffix:." + suffix,
                               .title = "*." + suffix,
                               .mode = FlowPromptHostMatchMode::suffix,
                               .pattern = "." + suffix});
        }
    }
    options.push_back(
        {.id = "exact:" + flowHost, .title = flowHost, .mode = FlowPromptHostMatchMode::exact, .pattern = flowHost});
    return options;
}

std::string selectedHostScopeID(const AgentPromptSession& session) {
    const auto& selection = session.ruleSelection;
    switch (selection.hostMatchMode) {
        case FlowPromptHostMatchMode::none:
            return std::string(anyHostScopeID);
        case FlowPromptHostMatchMode::exact:
            return "exact:" + host(session);
        case FlowPromptHostMatchMode::suffix:
            break;
    }
    if (selection.hostPatternOverride) return "suffix:" + *selection.hostPatternOverride;
    const std::string flowHost = host(session);
    const auto labels = text::splitNonEmpty(flowHost, '.');
    if (labels.size() < 2) return "suffix:." + flowHost;
    return "suffix:." + hostLabelsSuffix(labels, labels.size() - 2);
}

std::optional<FlowPromptRuleSelection> selectingHostScope(const AgentPromptSession& session, std::string_view id) {
    const auto options = hostScopeOptions(session);
    const auto found = std::find_if(options.begin(), options.end(), [&](const auto& o) { return o.id == id; });
    if (found == options.end()) return std::nullopt;
    FlowPromptRuleSelection selection = session.ruleSelection;
    selection.hostMatchMode = found->mode;
    selection.hostPatternOverride = found->pattern;
    return selection;
}

std::string_view facetTag(bool included) noexcept {
    return included ? exactTag : anyTag;
}

bool facetIncluded(std::string_view tag) noexcept {
    return tag == exactTag;
}

const std::array<DurationChoice, 3>& durationChoices() noexcept {
    static constexpr std::array<DurationChoice, 3> choices{{
        {RuleScope::temporary, "Once"},
        {RuleScope::session, "Session"},
        {RuleScope::persistent, "Always"},
    }};
    return choices;
}

AgentPromptDecisionPreset withDuration(AgentPromptDecisionPreset current, RuleScope scope) noexcept {
    return AgentPromptDecisionPresets::preset(AgentPromptDecisionPresets::action(current), scope);
}

AgentPromptDecisionPreset answering(AgentPromptDecisionPreset current, RuleAction action) noexcept {
    return AgentPromptDecisionPresets::preset(action, AgentPromptDecisionPresets::scope(current));
}

std::string allowTitle(AgentPromptDecisionPreset selected) {
    return fmt::format("Allow {}", AgentPromptDecisionPresets::durationTitle(selected));
}

std::string blockTitle(AgentPromptDecisionPreset selected) {
    return fmt::format("Block {}", AgentPromptDecisionPresets::durationTitle(selected));
}

std::optional<std::string> pendingPillText(std::size_t queuedCount) {
    if (!showsCancelAll(queuedCount)) return std::nullopt;
    return fmt::format("{} pending", queuedCount);
}

bool showsCancelAll(std::size_t queuedCount) noexcept {
    return queuedCount >= 2;
}

std::optional<std::string> alsoAnswersText(std::size_t otherPrompts) {
    if (otherPrompts == 0) return std::nullopt;
    return fmt::format("Also answers {} other pending prompt{}", otherPrompts, otherPrompts == 1 ? "" : "s");
}

TrafficPromptTexts derivedTexts(const AgentPromptSession& session) {
    TrafficPromptTexts texts;
    texts.host = host(session);
    texts.port = port(session);
    texts.proto = proto(session);
    texts.headerTitle = texts.host + ":" + texts.port;
    texts.directionTitle = "Outbound";
    texts.processTitle = processTitle(session);
    texts.processPath = processPath(session);
    texts.signerTitle = signerTitle(session);
    texts.tagsTitle = tagsTitle(session);
    texts.ancestorSummary = ancestorSummary(session);
    if (session.rememberedPreset) {
        texts.rememberedTitle = fmt::format("Remembered: {}", AgentPromptDecisionPresets::title(*session.rememberedPreset));
    }
    texts.signerChangeSummary = signerChangeSummary(session);
    texts.previewText = previewText(session);
    texts.hostScopeOptions = hostScopeOptions(session);
    texts.selectedHostScopeID = selectedHostScopeID(session);
    texts.durationTitle = std::string(AgentPromptDecisionPresets::durationTitle(session.selectedPreset));
    texts.blockTitle = blockTitle(session.selectedPreset);
    texts.allowTitle = allowTitle(session.selectedPreset);
    texts.signerChoiceEnabled = !AgentPromptDecisionPresets::isOnce(session.selectedPreset);
    return texts;
}

}  // namespace TrafficPromptViewModel

namespace AgentStatusViewModel {

std::string stubsText(bool stubExtensionsEnabled) {
    return stubExtensionsEnabled ? "stubs: on" : "stubs: off";
}

std::string activePromptsTitle(std::size_t count) {
    return fmt::format("Active Prompts ({})", count);
}

std::string rowDestination(const AgentPromptSession& session) {
    return TrafficPromptViewModel::host(session) + ":" + TrafficPromptViewModel::port(session);
}

std::string rowProcess(const AgentPromptSession& session) {
    return TrafficPromptViewModel::processTitle(session);
}

}  // namespace AgentStatusViewModel

namespace TrafficPromptViewModel {

std::string notificationSummary(const AgentPromptSession& session) {
    return processTitle(session) + " wants to connect to " + host(session);
}

std::string notificationBody(const AgentPromptSession& session, std::size_t queuedCount) {
    std::string body = host(session) + ":" + port(session) + " over " + proto(session);
    if (queuedCount > 2) body += "\n" + std::to_string(queuedCount - 1) + " more prompts wait.";
    else if (queuedCount == 2) body += "\n1 more prompt waits.";
    return body;
}

}  // namespace TrafficPromptViewModel

}  // namespace quillfort
