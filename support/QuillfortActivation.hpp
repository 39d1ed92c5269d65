// How far each of the firewall's system extensions is installed and running,
// what the user should do next, and the manual setup checklist: the records an
// activation screen shows and stores or exchanges as JSON.
#pragma once

#include <array>
#include <optional>
#include <string>
#include <string_view>
#include <tuple>
#include <utility>
#include <vector>

#include "model/Date.hpp"
#include "model/EnumTraits.hpp"
#include "model/Json.hpp"

namespace quillfort {

// The extensions the user has to approve.
enum class QuillfortProtectedComponent { flowFilter, processObserver };

template <>
struct EnumTraits<QuillfortProtectedComponent> {
    static constexpr std::array<std::pair<QuillfortProtectedComponent, std::string_view>, 2> entries{{
        {QuillfortProtectedComponent::flowFilter, "flowFilter"},
        {QuillfortProtectedComponent::processObserver, "processObserver"},
    }};
};

// The component's identity in lists: its raw string.
[[nodiscard]] std::string_view id(QuillfortProtectedComponent component) noexcept;
[[nodiscard]] std::string_view title(QuillfortProtectedComponent component) noexcept;
[[nodiscard]] std::string_view shortTitle(QuillfortProtectedComponent component) noexcept;

enum class QuillfortActivationState { notInstalled, waitingForApproval, running, disabled, degraded, error };

template <>
struct EnumTraits<QuillfortActivationState> {
    static constexpr std::array<std::pair<QuillfortActivationState, std::string_view>, 6> entries{{
        {QuillfortActivationState::notInstalled, "notInstalled"},
        {QuillfortActivationState::waitingForApproval, "waitingForApproval"},
        {QuillfortActivationState::running, "running"},
        {QuillfortActivationState::disabled, "disabled"},
        {QuillfortActivationState::degraded, "degraded"},
        {QuillfortActivationState::error, "error"},
    }};
};

[[nodiscard]] std::string_view title(QuillfortActivationState state) noexcept;
// Whether the user has something to do: every state but running and disabled.
[[nodiscard]] bool requiresAttention(QuillfortActivationState state) noexcept;

enum class QuillfortChecklistState { pending, completed, attentionRequired };

template <>
struct EnumTraits<QuillfortChecklistState> {
    static constexpr std::array<std::pair<QuillfortChecklistState, std::string_view>, 3> entries{{
        {QuillfortChecklistState::pending, "pending"},
        {QuillfortChecklistState::completed, "completed"},
        {QuillfortChecklistState::attentionRequired, "attentionRequired"},
    }};
};

[[nodiscard]] std::string_view title(QuillfortChecklistState state) noexcept;

// The step the user should take next.
struct QuillfortNextAction {
    std::string title;
    std::string detail;

    bool operator==(const QuillfortNextAction&) const = default;
};

struct QuillfortComponentStatus {
    QuillfortProtectedComponent component = QuillfortProtectedComponent::flowFilter;
    QuillfortActivationState state = QuillfortActivationState::notInstalled;
    std::string summary;                        // one-line status text
    std::string detail;                         // longer explanation
    std::optional<QuillfortNextAction> nextAction;
    std::string bundleIdentifier;
    bool isBundled = false;                     // present in the application bundle
    bool isRequestInFlight = false;             // an (de)activation request is pending
    std::optional<Date> lastUpdatedAt;

    [[nodiscard]] std::string_view id() const noexcept { return quillfort::id(component); }

    bool operator==(const QuillfortComponentStatus&) const = default;
};

struct QuillfortManualSetupStep {
    std::string id;
    std::string title;
    std::string detail;
    QuillfortChecklistState state = QuillfortChecklistState::pending;

    bool operator==(const QuillfortManualSetupStep&) const = default;
};

struct QuillfortActivationSnapshot {
    std::vector<QuillfortComponentStatus> components;
    std::vector<QuillfortManualSetupStep> manualSetupSteps;
    std::optional<std::string> lastEvent;  // the latest activation event, as text
    std::optional<Date> lastUpdatedAt;

    // The first entry for `component`; nothing when it is not listed.
    [[nodiscard]] std::optional<QuillfortComponentStatus> status(
        QuillfortProtectedComponent component) const;
    // Components whose state requires attention; setup steps do not count.
    [[nodiscard]] int attentionRequiredCount() const noexcept;

    bool operator==(const QuillfortActivationSnapshot&) const = default;
};

template <>
struct JsonFields<QuillfortNextAction> {
    static constexpr auto fields = std::tuple{
        jsonField("title", &QuillfortNextAction::title),
        jsonField("detail", &QuillfortNextAction::detail),
    };
};

template <>
struct JsonFields<QuillfortComponentStatus> {
    static constexpr auto fields = std::tuple{
        jsonField("component", &QuillfortComponentStatus::component),
        jsonField("state", &QuillfortComponentStatus::state),
        jsonField("summary", &QuillfortComponentStatus::summary),
        jsonField("detail", &QuillfortComponentStatus::detail),
        jsonField("nextAction", &QuillfortComponentStatus::nextAction),
        jsonField("bundleIdentifier", &QuillfortComponentStatus::bundleIdentifier),
        jsonField("isBundled", &QuillfortComponentStatus::isBundled),
        jsonField("isRequestInFlight", &QuillfortComponentStatus::isRequestInFlight),
        jsonField("lastUpdatedAt", &QuillfortComponentStatus::lastUpdatedAt),
    };
};

template <>
struct JsonFields<QuillfortManualSetupStep> {
    static constexpr auto fields = std::tuple{
        jsonField("id", &QuillfortManualSetupStep::id),
        jsonField("title", &QuillfortManualSetupStep::title),
        jsonField("detail", &QuillfortManualSetupStep::detail),
        jsonField("state", &QuillfortManualSetupStep::state),
    };
};

template <>
struct JsonFields<QuillfortActivationSnapshot> {
    static constexpr auto fields = std::tuple{
        jsonField("components", &QuillfortActivationSnapshot::components),
        jsonField("manualSetupSteps", &QuillfortActivationSnapshot::manualSetupSteps),
        jsonField("lastEvent", &QuillfortActivationSnapshot::lastEvent),
        jsonField("lastUpdatedAt", &QuillfortActivationSnapshot::lastUpdatedAt),
    };
};

}  // namespace quillfort
