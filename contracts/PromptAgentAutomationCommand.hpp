// An unattended answer to one queued prompt, handed to the agent as a file by
// an outside process.
#pragma once

#include "contracts/FlowPromptMessages.hpp"
#include "model/Date.hpp"
#include "model/Json.hpp"
#include "model/Uuid.hpp"

namespace quillfort {

struct PromptAgentAutomationCommand {
    Uuid promptID;
    FlowPromptAutomationPreset preset = FlowPromptAutomationPreset::allowOnce;
    Date createdAt{};

    bool operator==(const PromptAgentAutomationCommand&) const = default;
};

template <>
struct JsonFields<PromptAgentAutomationCommand> {
    using T = PromptAgentAutomationCommand;
    static constexpr auto fields = std::tuple{
        jsonField("promptID", &T::promptID),
        jsonField("preset", &T::preset),
        jsonField("createdAt", &T::createdAt),
    };
};

}  // namespace quillfort
