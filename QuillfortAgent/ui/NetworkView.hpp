// The status window's "Network" view: the filter's recent flow decisions, newest
// first, narrowed by process or host and by decision. "Allow…" and "Block…"
// put the chosen flow before the user in the decision window, so a rule is made
// from it with the same choices (duration, host scope, facets) as a prompt's.
// A model over the shared events, so ten thousand rows cost no more widgets
// than ten.
#pragma once

#include <memory>
#include <vector>

#include <QWidget>

#include "QuillfortAgent/coordinator/NetworkViewModel.hpp"
#include "QuillfortAgent/coordinator/Observable.hpp"
#include "QuillfortAgent/host/AgentFlowMonitor.hpp"
#include "QuillfortAgent/host/AgentRuleBook.hpp"

class QComboBox;
class QLineEdit;
class QTableView;

namespace quillfort {
class AgentPromptCoordinator;
}

namespace quillfort::ui {

class FlowEventsModel;
class QFAccentButton;
class QFText;

class NetworkView : public QWidget {
public:
    NetworkView(std::shared_ptr<AgentFlowMonitor> flows, std::shared_ptr<AgentRuleBook> rules,
                std::shared_ptr<AgentPromptCoordinator> coordinator, QWidget* parent = nullptr);
    ~NetworkView() override;

    // Puts the chosen flow before the user to make a rule of `action` from it.
    void makeRule(RuleAction action);

protected:
    void showEvent(QShowEvent* event) override;

private:
    void refresh();
    void updateButtons();

    std::shared_ptr<AgentFlowMonitor> flows_;
    std::shared_ptr<AgentRuleBook> rules_;
    std::shared_ptr<AgentPromptCoordinator> coordinator_;
    std::vector<Subscription> subscriptions_;
    std::shared_ptr<const FlowFilterEventSnapshot> snapshot_;
    NetworkViewModel::FlowSearchIndex searchIndex_;  // of snapshot_

    QLineEdit* search_ = nullptr;
    QComboBox* decisionPicker_ = nullptr;
    QFText* countText_ = nullptr;
    QTableView* table_ = nullptr;
    FlowEventsModel* model_ = nullptr;
    QFAccentButton* allowButton_ = nullptr;
    QFAccentButton* blockButton_ = nullptr;
    QFText* problemText_ = nullptr;
};

}  // namespace quillfort::ui
