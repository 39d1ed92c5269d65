#include "tools/StatusFormatting.hpp"

#include <fmt/format.h>

#include "tools/TextTable.hpp"

namespace quillfort::StatusFormatting {

namespace {

std::string timeText(const std::optional<Date>& time, Date now) {
    if (!time) return "never";
    return fmt::format("{} ({})", iso8601String(*time), ageText(*time, now));
}

}  // namespace

std::string destinationText(std::string_view host, std::optional<std::uint16_t> port) {
    if (!port) return std::string(host);
    if (host.find(':') != std::string_view::npos) return fmt::format("[{}]:{}", host, *port);
    return fmt::format("{}:{}", host, *port);
}

std::string ageText(Date then, Date now) {
    const auto seconds = (now - then).count();
    if (seconds < 1) return "just now";
    if (seconds < 60) return fmt::format("{}s ago", seconds);
    if (seconds < 3600) return fmt::format("{}m ago", seconds / 60);
    if (seconds < 86400) return fmt::format("{}h ago", seconds / 3600);
    return fmt::format("{}d ago", seconds / 86400);
}

std::string formatStatus(const PromptAgentStatusSnapshot& status, Date now) {
    auto state = [](bool ready) { return ready ? "ready" : "not ready"; };
    std::string out = fmt::format("Quillfort agent: {}\n\n", TextTable::printable(status.statusText));
    out += TextTable::render(
        {"Updated:", timeText(status.updatedAt, now)},
        {
            {"Prompt listener:", state(status.listenerReady)},
            {"Loopback listener:", state(status.loopbackListenerReady)},
            {"Manifest:", status.manifestPublished ? "published" : "not published"},
            {"Last prompt received:", timeText(status.lastPromptReceivedAt, now)},
            {"Last prompt resolved:", timeText(status.lastPromptResolvedAt, now)},
            {"Prompt window:", status.promptWindowVisible ? "visible" : "hidden"},
            {"Active prompts:", std::to_string(status.activePromptCount)},
        });

    if (status.queuedPrompts.empty()) {
        out += "\nNo prompts waiting.\n";
        return out;
    }
    const std::optional<Uuid> onScreen =
        status.activePrompt ? std::optional<Uuid>(status.activePrompt->promptID) : std::nullopt;
    std::vector<std::vector<std::string>> rows;
    for (const auto& prompt : status.queuedPrompts) {
        rows.push_back({onScreen == prompt.promptID ? "*" : "", prompt.promptID.uppercaseString(),
                        destinationText(prompt.host, prompt.port), prompt.processDisplayTitle,
                        prompt.previewText});
    }
    out += fmt::format("\nQueue ({}):\n", status.queuedPrompts.size());
    out += TextTable::render({"", "PROMPT", "DESTINATION", "PROCESS", "PREVIEW"}, rows);
    if (onScreen) out += "* on screen\n";
    return out;
}

std::optional<std::string> staleStatusNote(Date updatedAt, const std::optional<RunningAgent::Agent>& agent) {
    // Short enough for one line of an 80-column terminal.
    if (!agent) return fmt::format("No agent runs: this status file is what one left at {}.", iso8601String(updatedAt));
    // Start times from /proc are good to a second or so; an agent writes its
    // status file within milliseconds of starting.
    constexpr std::chrono::seconds tolerance{2};
    if (!agent->startedAt || updatedAt + tolerance >= *agent->startedAt) return std::nullopt;
    return fmt::format("Out of date: this status file ({}) predates agent pid {}.", iso8601String(updatedAt),
                       agent->pid);
}

}  // namespace quillfort::StatusFormatting
