// What the two transports of the service host share: how a decoded request is
// handed to the host, how its answer comes back, and the errors a client is
// told when its request cannot be read.
#pragma once

#include <cstddef>
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

// Called on the bridge queue with every request a transport decoded and the
// size in bytes of the frame payload or file it came from. The reply may run
// before it returns (an automation directive or a refusal answered at once).
using BridgePromptIntake =
    std::function<void(FlowPromptRequest request, std::size_t size, BridgePromptReply reply)>;

inline constexpr std::string_view undecodableRequestMessage = "Failed to decode the Quillfort prompt request.";

[[nodiscard]] inline std::string oversizeRequestMessage(std::uint32_t maximumRequestSize) {
    return fmt::format("The Quillfort prompt request is larger than the {} bytes the agent accepts.",
                       maximumRequestSize);
}

// A loopback request refused because the frames other connections are still
// delivering already hold all the bytes the agent sets aside for them.
[[nodiscard]] inline std::string frameBudgetExceededMessage(std::uint64_t budget) {
    return fmt::format(
        "The Quillfort prompt agent is already receiving as many request bytes as it holds at once "
        "({} bytes); send the request again later.",
        budget);
}

// A request refused because the prompts waiting for the user already hold all
// the bytes the agent keeps for its queue.
[[nodiscard]] inline std::string queueBudgetExceededMessage(std::uint64_t budget) {
    return fmt::format(
        "The Quillfort prompt queue already holds as many request bytes waiting for the user as it keeps "
        "({} bytes); send the request again once some are answered.",
        budget);
}

}  // namespace quillfort
