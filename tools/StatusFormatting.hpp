// How `quillfort status` shows the agent's status file to a person: its state
// line, listener and manifest state, prompt times and the queue.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "contracts/PromptAgentStatusSnapshot.hpp"
#include "model/Date.hpp"
#include "tools/RunningAgent.hpp"

namespace quillfort::StatusFormatting {

// "api.example.com:443", "[::1]:22" for IPv6 literals, the host alone without a port.
[[nodiscard]] std::string destinationText(std::string_view host, std::optional<std::uint16_t> port);

// "5s ago", "3m ago", "2h ago", "4d ago"; "just now" within a second and for
// times slightly ahead of `now` (clocks of two processes rarely agree exactly).
[[nodiscard]] std::string ageText(Date then, Date now);

// A summary block, then the queue as a table (prompt id, destination, process,
// preview) with the prompt on screen marked "*".
[[nodiscard]] std::string formatStatus(const PromptAgentStatusSnapshot& status, Date now);

// One line for a reader of the status file when it may not show the queue of
// a running agent: no agent holds the lock (the file is what an agent that
// ended left behind), or the file was last written before the agent that
// holds it started (that agent cannot write it). Nothing for a file of the
// running agent.
[[nodiscard]] std::optional<std::string> staleStatusNote(Date updatedAt,
                                                         const std::optional<RunningAgent::Agent>& agent);

}  // namespace quillfort::StatusFormatting
