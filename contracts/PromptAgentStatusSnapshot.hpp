// What the agent publishes about itself in the shared status file: listener
// and manifest readiness, prompt times, and the prompts it holds.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "model/Date.hpp"
#include "model/Json.hpp"
#include "model/Uuid.hpp"

namespace quillfort {

// The prompt on screen.
struct PromptAgentActivePromptSnapshot {
    Uuid promptID;
    std::string host;
    std::optional<std::uint16_t> port;
    std::int64_t queueCount = 0;
    std::string processDisplayTitle;
    std::string previewText;

    bool operator==(const PromptAgentActivePromptSnapshot&) const = default;
};

// One prompt held by the agent, in queue order.
struct PromptAgentQueuedPromptSnapshot {
    Uuid promptID;
    std::string host;
    std::optional<std::uint16_t> port;
    std::string processDisplayTitle;
    std::string previewText;

    bool operator==(const PromptAgentQueuedPromptSnapshot&) const = default;
};

struct PromptAgentStatusSnapshot {
    Date updatedAt{};
    bool listenerReady = false;
    bool loopbackListenerReady = false;
    bool manifestPublished = false;
    std::optional<Date> lastPromptReceivedAt;
    std::optional<Date> lastPromptResolvedAt;
    std::string statusText;
    bool promptWindowVisible = false;
    std::int64_t activePromptCount = 0;
    std::optional<PromptAgentActivePromptSnapshot> activePrompt;
    std::vector<PromptAgentQueuedPromptSnapshot> queuedPrompts;

    bool operator==(const PromptAgentStatusSnapshot&) const = default;
};

template <>
struct JsonFields<PromptAgentActivePromptSnapshot> {
    using T = PromptAgentActivePromptSnapshot;
    static constexpr auto fields = std::tuple{
        jsonField("promptID", &T::promptID),
        jsonField("host", &T::host),
        jsonField("port", &T::port),
        jsonField("queueCount", &T::queueCount),
        jsonField("processDisplayTitle", &T::processDisplayTitle),
        jsonField("previewText", &T::previewText),
    };
};

template <>
struct JsonFields<PromptAgentQueuedPromptSnapshot> {
    using T = PromptAgentQueuedPromptSnapshot;
    static constexpr auto fields = std::tuple{
        jsonField("promptID", &T::promptID),
        jsonField("host", &T::host),
        jsonField("port", &T::port),
        jsonField("processDisplayTitle", &T::processDisplayTitle),
        jsonField("previewText", &T::previewText),
    };
};

// Status files from older agents lack the presentation fields; they read as
// "no window, no prompts".
template <>
struct JsonFields<PromptAgentStatusSnapshot> {
    using T = PromptAgentStatusSnapshot;
    static constexpr auto fields = std::tuple{
        jsonField("updatedAt", &T::updatedAt),
        jsonField("listenerReady", &T::listenerReady),
        jsonField("loopbackListenerReady", &T::loopbackListenerReady),
        jsonField("manifestPublished", &T::manifestPublished),
        jsonField("lastPromptReceivedAt", &T::lastPromptReceivedAt),
        jsonField("lastPromptResolvedAt", &T::lastPromptResolvedAt),
        jsonField("statusText", &T::statusText),
        jsonField("promptWindowVisible", &T::promptWindowVisible, JsonFieldRule::defaultWhenMissing),
        jsonField("activePromptCount", &T::activePromptCount, JsonFieldRule::defaultWhenMissing),
        jsonField("activePrompt", &T::activePrompt),
        jsonField("queuedPrompts", &T::queuedPrompts, JsonFieldRule::defaultWhenMissing),
    };
};

}  // namespace quillfort
