// Recognises the filter's own connections to the prompt agent's loopback
// listener. They must never be prompted for: the prompt itself travels on them.
#pragma once

#include <array>
#include <string_view>

#include "model/FlowContext.hpp"
#include "model/FlowDecision.hpp"

namespace quillfort::QuillfortInternalPromptTransport {

inline constexpr std::string_view bypassReasonCode = "internal_quillfort_prompt_transport_allow";
// Host names that reach this machine's loopback listener, compared after host
// normalisation (so "LOCALHOST" and "[::1]" count).
inline constexpr std::array<std::string_view, 3> loopbackHostNames{"127.0.0.1", "::1", "localhost"};

// True for an outbound, non-UDP flow to a loopback host name (the flow's host
// text or its remote endpoint's host) on the agent's default loopback port
// (the flow's port, else the remote endpoint's).
[[nodiscard]] bool shouldBypass(const FlowContext& context);

// The allow decision for a bypassed flow; the context is not consulted.
[[nodiscard]] FlowDecision bypassDecision(const FlowContext& context);

}  // namespace quillfort::QuillfortInternalPromptTransport
