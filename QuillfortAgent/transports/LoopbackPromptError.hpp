// Errors of reading a prompt frame from a loopback connection, in the error
// domain "QuillfortPromptLoopback".
#pragma once

#include <cstdint>
#include <string_view>
#include <system_error>

#include "platform/Error.hpp"

namespace quillfort {

enum class LoopbackPromptErrorCode {
    headerIncomplete = 11,     // the 4-byte length header came back with another length
    closedBeforePayload = 12,  // the peer ended the stream inside the header or the payload
    payloadTooLarge = 13,      // the header announces more than the agent accepts
    requestTimedOut = 14,      // no complete frame within the time a client is given
    frameBudgetExceeded = 15,  // all connections together hold as many unfinished frame bytes as allowed
};

namespace LoopbackPromptError {

inline constexpr std::string_view domain = "QuillfortPromptLoopback";

// The largest request payload the agent reads: far above any real prompt
// request, low enough that a bogus header cannot make the agent hold gigabytes.
inline constexpr std::uint32_t maximumRequestPayloadSize = 16u * 1024u * 1024u;

[[nodiscard]] const std::error_category& category() noexcept;
// The error with its code in the domain and its text as the description.
[[nodiscard]] Error make(LoopbackPromptErrorCode code);

}  // namespace LoopbackPromptError

// A socket error from the network layer as our error value. Socket errors are
// errno values and stay so; other categories keep only their text, which is
// all that anyone reads of them.
[[nodiscard]] Error errorFromNetwork(int value, bool isSystemError, std::string description);

}  // namespace quillfort
