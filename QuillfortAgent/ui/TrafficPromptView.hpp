// The decision screen for the prompt at the head of the queue. It shows the
// view model's texts and writes every change straight into the session in the
// coordinator's queue; it keeps nothing of its own but which sections are open.
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <optional>
#include <vector>

#include <QElapsedTimer>
#include <QWidget>

#include "QuillfortAgent/coordinator/AgentPromptSession.hpp"
#include "QuillfortAgent/coordinator/TrafficPromptViewModel.hpp"

class QCheckBox;
class QComboBox;
class QLabel;
class QScrollArea;

namespace quillfort {
class AgentPromptCoordinator;
}

namespace quillfort::ui {

class QFAccentButton;
class QFCard;
class QFGhostButton;
class QFSection;
class QFSelectionChip;
class QFStatusPill;
class QFText;

class TrafficPromptView : public QWidget {
public:
    // How long answers are refused after the window comes forward or the head
    // changes, so that typing meant for another window cannot answer a prompt.
    static constexpr std::chrono::milliseconds defaultInputGuard{500};

    explicit TrafficPromptView(AgentPromptCoordinator& coordinator, QWidget* parent = nullptr);

    // Shows `session` (the head of a queue of `queuedCount`). Only what changed
    // is touched; a different head also arms the input guard.
    void bind(const AgentPromptSession& session, std::size_t queuedCount);
    void armInputGuard();
    void setInputGuardInterval(std::chrono::milliseconds interval) noexcept { guardInterval_ = interval; }
    [[nodiscard]] bool inputGuarded() const;

private:
    void buildHeader(QWidget* parent);
    void buildScrollColumn(QWidget* parent);
    void buildFooter(QWidget* parent);
    void installShortcuts();

    // The live session from the queue, never a copy kept from the last bind.
    [[nodiscard]] std::optional<AgentPromptSession> liveSession() const;
    void chooseDuration(RuleScope scope);
    void answer(RuleAction action);
    void cancel();
    void cancelAll();
    void editSelection(const std::function<void(FlowPromptRuleSelection&)>& edit);

    AgentPromptCoordinator& coordinator_;
    std::optional<Uuid> boundID_;
    std::size_t queuedCount_ = 0;
    std::chrono::milliseconds guardInterval_ = defaultInputGuard;
    QElapsedTimer guardTimer_;
    std::vector<HostScopeOption> shownHostOptions_;

    QFText* headerTitle_ = nullptr;
    QFStatusPill* pendingPill_ = nullptr;
    QFText* protoLabel_ = nullptr;
    QFText* directionLabel_ = nullptr;
    QFText* processLabel_ = nullptr;
    QFText* rememberedDot_ = nullptr;
    QFText* rememberedLabel_ = nullptr;
    QScrollArea* scroll_ = nullptr;
    std::vector<QFSelectionChip*> durationChips_;
    QFSection* detailsSection_ = nullptr;
    QFText* pathValue_ = nullptr;
    QFText* signerValue_ = nullptr;
    QFText* tagsValue_ = nullptr;
    QFText* ancestorsValue_ = nullptr;
    QFSection* scopeSection_ = nullptr;
    QComboBox* hostPicker_ = nullptr;
    QComboBox* portPicker_ = nullptr;
    QComboBox* protocolPicker_ = nullptr;
    QCheckBox* exactProcessSwitch_ = nullptr;
    QCheckBox* ancestorAppSwitch_ = nullptr;
    QCheckBox* processTagSwitch_ = nullptr;
    QFCard* signerCard_ = nullptr;
    QFText* signerSummary_ = nullptr;
    QFSelectionChip* reuseChip_ = nullptr;
    QFSelectionChip* separateChip_ = nullptr;
    QFText* previewText_ = nullptr;
    QLabel* alsoAnswersLabel_ = nullptr;
    QFGhostButton* cancelButton_ = nullptr;
    QFGhostButton* cancelAllButton_ = nullptr;
    QFAccentButton* blockButton_ = nullptr;
    QFAccentButton* allowButton_ = nullptr;
};

}  // namespace quillfort::ui
