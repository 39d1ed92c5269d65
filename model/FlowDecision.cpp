#include "model/FlowDecision.hpp"

namespace quillfort::FlowDecisionShadowing {

bool shouldShadowPromptDrop(const FlowDecision& decision) noexcept {
    if (decision.action != FlowDecisionAction::drop) return false;
    const std::string_view reason = decision.reasonCode;
    return reason.starts_with("prompt_resolved_drop_") || reason.starts_with("prompt_agent_");
}

}  // namespace quillfort::FlowDecisionShadowing
