#include "support/QuillfortActivation.hpp"

#include <algorithm>

namespace quillfort {

std::string_view id(QuillfortProtectedComponent component) noexcept { return rawValue(component); }

std::string_view title(QuillfortProtectedComponent component) noexcept {
    switch (component) {
        case QuillfortProtectedComponent::flowFilter: return "Flow Filter";
        case QuillfortProtectedComponent::processObserver: return "Process Observer";
    }
    return {};
}

std::string_view shortTitle(QuillfortProtectedComponent component) noexcept {
    switch (component) {
        case QuillfortProtectedComponent::flowFilter: return "Flow";
        case QuillfortProtectedComponent::processObserver: return "Process";
    }
    return {};
}

std::string_view title(QuillfortActivationState state) noexcept {
    switch (state) {
        case QuillfortActivationState::notInstalled: return "Not Installed";
        case QuillfortActivationState::waitingForApproval: return "Waiting For Approval";
        case QuillfortActivationState::running: return "Running";
        case QuillfortActivationState::disabled: return "Disabled";
        case QuillfortActivationState::degraded: return "Degraded";
        case QuillfortActivationState::error: return "Error";
    }
    return {};
}

bool requiresAttention(QuillfortActivationState state) noexcept {
    switch (state) {
        case QuillfortActivationState::running:
        case QuillfortActivationState::disabled: return false;
        case QuillfortActivationState::notInstalled:
        case QuillfortActivationState::waitingForApproval:
        case QuillfortActivationState::degraded:
        case QuillfortActivationState::error: return true;
    }
    return true;
}

std::string_view title(QuillfortChecklistState state) noexcept {
    switch (state) {
        case QuillfortChecklistState::pending: return "Pending";
        case QuillfortChecklistState::completed: return "Completed";
        case QuillfortChecklistState::attentionRequired: return "Needs Attention";
    }
    return {};
}

std::optional<QuillfortComponentStatus> QuillfortActivationSnapshot::status(
    QuillfortProtectedComponent component) const {
    const auto wanted = id(component);
    const auto found = std::find_if(components.begin(), components.end(),
                                    [&](const QuillfortComponentStatus& entry) { return entry.id() == wanted; });
    if (found == components.end()) return std::nullopt;
    return *found;
}

int QuillfortActivationSnapshot::attentionRequiredCount() const noexcept {
    return static_cast<int>(std::count_if(components.begin(), components.end(),
                                          [](const QuillfortComponentStatus& entry) {
                                              return requiresAttention(entry.state);
                                          }));
}

}  // namespace quillfort
