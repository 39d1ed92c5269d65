// The listener manifest's content: how a client reaches the running prompt
// agent, either through the file bridge directories or a named service.
#pragma once

#include <array>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "model/EnumTraits.hpp"
#include "model/Json.hpp"

namespace quillfort {

enum class QuillfortPromptBridgeTransportKind { fileRequestResponse, machServiceXPC };

template <>
struct EnumTraits<QuillfortPromptBridgeTransportKind> {
    using K = QuillfortPromptBridgeTransportKind;
    static constexpr std::array<std::pair<K, std::string_view>, 2> entries{{
        {K::fileRequestResponse, "fileRequestResponse"},
        {K::machServiceXPC, "machServiceXPC"},
    }};
};

struct QuillfortPromptListenerRecord {
    QuillfortPromptBridgeTransportKind transport = QuillfortPromptBridgeTransportKind::fileRequestResponse;
    std::optional<std::string> machServiceName;
    std::optional<std::string> requestsDirectoryPath;   // absolute; where clients drop requests
    std::optional<std::string> responsesDirectoryPath;  // absolute; where the agent leaves answers
    std::optional<std::string> sessionIdentifier;       // name of the agent run's session directory

    [[nodiscard]] std::optional<std::filesystem::path> requestsDirectoryURL() const;
    [[nodiscard]] std::optional<std::filesystem::path> responsesDirectoryURL() const;

    // One line naming the transport and its values, "<nil>" for absent ones;
    // used in the error for a manifest that cannot be used.
    [[nodiscard]] std::string summary() const;

    bool operator==(const QuillfortPromptListenerRecord&) const = default;
};

std::ostream& operator<<(std::ostream& out, const QuillfortPromptListenerRecord& record);

// Written compactly in field order with absent values left out. Read leniently,
// because older agents published other shapes:
//  - a bare JSON string is a service name (transport machServiceXPC);
//  - a missing transport is fileRequestResponse when either directory path is
//    present, else machServiceXPC;
//  - machServiceXPC without a name gets the default service name;
//  - fileRequestResponse without a directory path gets "" (which is unusable).
template <>
struct JsonCodec<QuillfortPromptListenerRecord> {
    static json::value encode(const QuillfortPromptListenerRecord& record);
    static JsonResult<QuillfortPromptListenerRecord> decode(const json::value& jv);
};

}  // namespace quillfort
