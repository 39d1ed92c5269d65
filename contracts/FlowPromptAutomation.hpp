// Unattended answers for automated runs: what each canned preset answers, and
// the directive (preset plus optional destination focus) read from the
// environment that decides which prompts get such an answer.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "contracts/FlowPromptMessages.hpp"
#include "model/Rule.hpp"
#include "model/Uuid.hpp"

namespace quillfort {

[[nodiscard]] RuleAction action(FlowPromptAutomationPreset preset);
[[nodiscard]] RuleScope scope(FlowPromptAutomationPreset preset);

// The preset's answer to `request`, with the default selection and the rule it
// builds for lasting scopes; a one-time preset carries neither.
[[nodiscard]] FlowPromptResponse makeResponse(FlowPromptAutomationPreset preset, const FlowPromptRequest& request,
                                              UuidSource& ids = *randomUuidSource());

// Restricts an automated answer to one destination host, and port if given.
struct FlowPromptAutomationFocus {
    std::string host;  // normalised (trimmed, brackets dropped, lower-case); never empty
    std::optional<std::uint16_t> port;

    // Nothing when `host` is absent or normalises to nothing.
    [[nodiscard]] static std::optional<FlowPromptAutomationFocus> make(std::optional<std::string_view> host,
                                                                       std::optional<std::uint16_t> port);
    // From "QUILLFORT_AUTOMATION_RULE_HOST" and "QUILLFORT_AUTOMATION_RULE_PORT";
    // a port that does not parse is dropped rather than preventing the focus.
    [[nodiscard]] static std::optional<FlowPromptAutomationFocus> fromEnvironment(
        const std::map<std::string, std::string>& environment);

    // True when the request's host, normalised alike, is the focus's host and,
    // if the focus has a port, the request's port equals it.
    [[nodiscard]] bool matches(const FlowPromptRequest& request) const;

    bool operator==(const FlowPromptAutomationFocus&) const = default;
};

struct FlowPromptAutomationDirective {
    FlowPromptAutomationPreset preset = FlowPromptAutomationPreset::allowOnce;
    std::optional<FlowPromptAutomationFocus> focus;

    // Nothing unless "QUILLFORT_AGENT_AUTOMATION_RESPONSE" names a preset
    // (trimmed, any case).
    [[nodiscard]] static std::optional<FlowPromptAutomationDirective> fromEnvironment(
        const std::map<std::string, std::string>& environment);

    // Every request matches a directive without focus.
    [[nodiscard]] bool matches(const FlowPromptRequest& request) const;
    [[nodiscard]] std::optional<FlowPromptResponse> makeResponseIfMatch(const FlowPromptRequest& request,
                                                                        UuidSource& ids = *randomUuidSource()) const;

    bool operator==(const FlowPromptAutomationDirective&) const = default;
};

std::ostream& operator<<(std::ostream& out, const FlowPromptAutomationFocus& focus);
std::ostream& operator<<(std::ostream& out, const FlowPromptAutomationDirective& directive);

}  // namespace quillfort
