// The agent's own window, opened from the tray, the session bus or
// `quillfort show`: the status of the prompt bridge and its queue, the rules,
// and the network's recent decisions, one view at a time behind three tabs.
#pragma once

#include <memory>

#include <QWidget>

#include "support/QuillfortFeatureFlags.hpp"

class QStackedWidget;

namespace quillfort {
class AgentPromptCoordinator;
class AgentRuleBook;
class AgentFlowMonitor;
}  // namespace quillfort

namespace quillfort::ui {

class AgentStatusView;
class NetworkView;
class QFSelectionChip;
class RulesView;

class AgentStatusWindow : public QWidget {
public:
    enum class Page { status, rules, network };

    AgentStatusWindow(QuillfortFeatureFlags featureFlags, std::shared_ptr<AgentPromptCoordinator> coordinator,
                      std::shared_ptr<AgentRuleBook> rules, std::shared_ptr<AgentFlowMonitor> flows,
                      QWidget* parent = nullptr);

    void showPage(Page page);
    [[nodiscard]] Page page() const noexcept { return page_; }
    [[nodiscard]] AgentStatusView& statusView() const noexcept { return *statusView_; }
    [[nodiscard]] RulesView& rulesView() const noexcept { return *rulesView_; }
    [[nodiscard]] NetworkView& networkView() const noexcept { return *networkView_; }

private:
    Page page_ = Page::status;
    QStackedWidget* pages_ = nullptr;
    AgentStatusView* statusView_ = nullptr;
    RulesView* rulesView_ = nullptr;
    NetworkView* networkView_ = nullptr;
    QFSelectionChip* tabs_[3] = {};
};

}  // namespace quillfort::ui
