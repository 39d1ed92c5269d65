// Synthetic prompts the agent queues for itself at start-up, so the decision
// window can be looked at (and driven by automation) without a filter running.
// Every setting is looked up in the environment, then on the command line,
// then in the user defaults.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "contracts/FlowPromptMessages.hpp"
#include "model/Uuid.hpp"
#include "platform/ProcessInfo.hpp"
#include "platform/UserDefaults.hpp"

namespace quillfort::AgentPreviewPrompts {

struct Setting {
    std::string_view variable;  // environment variable, also the user-defaults key
    std::string_view flag;      // command-line flag
};

inline constexpr Setting previewPromptSetting{"QUILLFORT_AGENT_AUTOMATION_PREVIEW_PROMPT",
                                              "--automation-preview-prompt"};
inline constexpr Setting queueCountSetting{"QUILLFORT_AGENT_AUTOMATION_PREVIEW_QUEUE_COUNT",
                                           "--automation-preview-queue-count"};
inline constexpr Setting hostSetting{"QUILLFORT_AGENT_AUTOMATION_PREVIEW_HOST", "--automation-preview-host"};
inline constexpr Setting portSetting{"QUILLFORT_AGENT_AUTOMATION_PREVIEW_PORT", "--automation-preview-port"};
inline constexpr Setting protocolSetting{"QUILLFORT_AGENT_AUTOMATION_PREVIEW_PROTOCOL",
                                         "--automation-preview-protocol"};
inline constexpr std::string_view fallbackHostVariable = "QUILLFORT_AUTOMATION_RULE_HOST";
inline constexpr std::string_view fallbackPortVariable = "QUILLFORT_AUTOMATION_RULE_PORT";

// Fixed values of the synthetic processes and flow.
inline constexpr std::string_view placeholderHost = "preview.quillfort.example";
inline constexpr std::uint16_t defaultPort = 443;
inline constexpr std::string_view workingDirectory = "/home/quillfort-preview";
inline constexpr std::string_view clientExecutablePath =
    "/Applications/Quillfort.app/Contents/MacOS/QuillfortPreviewClient";
inline constexpr std::string_view clientIdentifier = "com.vessimo.Quillfort.PreviewClient";
inline constexpr std::string_view clientTeamID = "QFPREVIEW1";

// The argument after the first one equal to `name`, or the text after "=" when
// that first one is `name=value`; absent when `name` does not occur or is the
// last argument (a flag without its value is no error).
[[nodiscard]] std::optional<std::string> automationArgumentValue(std::string_view name,
                                                                 const std::vector<std::string>& arguments);

// `arguments` without the preview flags and the values they take, read the
// same way as above, so that the command-line parser never disagrees with
// this reader about what belongs to them.
[[nodiscard]] std::vector<std::string> withoutAutomationArguments(const std::vector<std::string>& arguments);

// The first place that has the setting: the environment (present counts, even
// when empty), the value after the flag, the user-defaults string.
[[nodiscard]] std::optional<std::string> settingValue(const Setting& setting, const ProcessInfo& processInfo,
                                                      const UserDefaults& userDefaults);

// "1" in the environment, the bare flag, or "1" in the user defaults.
[[nodiscard]] bool previewPromptRequested(const ProcessInfo& processInfo, const UserDefaults& userDefaults);

// How many preview prompts to queue: a positive decimal count, trimmed; 1 for
// anything else.
[[nodiscard]] std::int64_t previewPromptQueueCount(const ProcessInfo& processInfo, const UserDefaults& userDefaults);

// One synthetic request: a preview client started from zsh, connecting to the
// configured (or fallback) host, port and protocol. New identifiers come from `ids`.
[[nodiscard]] FlowPromptRequest makePreviewPromptRequest(const ProcessInfo& processInfo,
                                                         const UserDefaults& userDefaults,
                                                         std::chrono::system_clock::time_point now, UuidSource& ids);

}  // namespace quillfort::AgentPreviewPrompts
