// What the two transports of the service host share: how a decoded request is
// handed to the host, how its answer comes back, and the errors a client is
// told when its request cannot be read.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include <fmt/format.h>

#include "contracts/FlowPromptMessages.hpp"

namespace quillfort {

// Runs on the bridge queue once the answer is recorded and its rule persisted;
// never runs when the host is gone.
using BridgePromptReply =
    std::function<void(std::optional<FlowPromptResponse> response, std::optional<std::string> errorMessage)>;

// Called on the bridge queue with every request a transport decoded. The reply
// may run before it returns (an automation directive answered at once).
using BridgePromptIntake = std::function<void(FlowPromptRequest request, BridgePromptReply reply)>;

inline constexpr std::string_view undecodableRequestMessage = "Failed to decode the Quillfort prompt request.";

[[nodiscard]] inline std::string oversizeRequestMessage(std::uint32_t maximumRequestSize) {
    return fmt::format("The Quillfort prompt request is larger than the {} bytes the agent accepts.",
                       maximumRequestSize);
}

}  // namespace quillfort
