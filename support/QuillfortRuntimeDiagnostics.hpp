// Four facts about the running filter set-up, offered to tools and screens that
// report on the firewall; plain record with a JSON form.
#pragma once

#include <tuple>

#include "model/FlowDecision.hpp"
#include "model/Json.hpp"

namespace quillfort {

struct QuillfortRuntimeDiagnostics {
    UnknownTrafficMode unknownTrafficMode = UnknownTrafficMode::alerting;
    bool promptAgentReady = false;
    bool shadowPromptDropEnabled = false;
    bool bootstrapAllowlistEnabled = false;

    bool operator==(const QuillfortRuntimeDiagnostics&) const = default;
};

template <>
struct JsonFields<QuillfortRuntimeDiagnostics> {
    static constexpr auto fields = std::tuple{
        jsonField("unknownTrafficMode", &QuillfortRuntimeDiagnostics::unknownTrafficMode),
        jsonField("promptAgentReady", &QuillfortRuntimeDiagnostics::promptAgentReady),
        jsonField("shadowPromptDropEnabled", &QuillfortRuntimeDiagnostics::shadowPromptDropEnabled),
        jsonField("bootstrapAllowlistEnabled", &QuillfortRuntimeDiagnostics::bootstrapAllowlistEnabled),
    };
};

}  // namespace quillfort
