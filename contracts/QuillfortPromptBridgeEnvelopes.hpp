// The wrappers a prompt request and its answer travel in, on the file bridge
// (one "<UUID>.json" file each way) and on the loopback connection (one frame
// each way). Both are compact JSON with their keys in field order.
#pragma once

#include <optional>
#include <string>

#include "contracts/FlowPromptMessages.hpp"
#include "model/Date.hpp"
#include "model/Json.hpp"
#include "model/Uuid.hpp"

namespace quillfort {

struct QuillfortPromptBridgeRequestEnvelope {
    FlowPromptRequest request;
    Date createdAt{};  // when the client built the envelope

    bool operator==(const QuillfortPromptBridgeRequestEnvelope&) const = default;
};

// An envelope with an `errorMessage` is a failure whatever else it carries; one
// with neither `errorMessage` nor `response` means no answer was given.
struct QuillfortPromptBridgeResponseEnvelope {
    Uuid promptID;
    std::optional<FlowPromptResponse> response;
    std::optional<std::string> errorMessage;
    Date createdAt{};  // when the agent built the envelope

    bool operator==(const QuillfortPromptBridgeResponseEnvelope&) const = default;
};

template <>
struct JsonFields<QuillfortPromptBridgeRequestEnvelope> {
    using T = QuillfortPromptBridgeRequestEnvelope;
    static constexpr auto fields = std::tuple{
        jsonField("request", &T::request),
        jsonField("createdAt", &T::createdAt),
    };
};

template <>
struct JsonFields<QuillfortPromptBridgeResponseEnvelope> {
    using T = QuillfortPromptBridgeResponseEnvelope;
    static constexpr auto fields = std::tuple{
        jsonField("promptID", &T::promptID),
        jsonField("response", &T::response),
        jsonField("errorMessage", &T::errorMessage),
        jsonField("createdAt", &T::createdAt),
    };
};

// Only entries with this extension in a bridge directory are requests or answers.
inline constexpr std::string_view bridgeFileExtension = "json";

// The name of both the request file and its answer file for one prompt: the
// prompt id as upper-case UUID text followed by ".json". Answers are matched to
// requests by this name alone.
[[nodiscard]] std::string bridgeFileName(const Uuid& promptID);

}  // namespace quillfort
