// The agent's own window, opened from the tray: listener state, the queue with
// a way to answer any queued prompt, and the latest answers.
#pragma once

#include <memory>
#include <vector>

#include <QWidget>

#include "QuillfortAgent/coordinator/AgentPromptSession.hpp"
#include "QuillfortAgent/coordinator/Observable.hpp"
#include "support/QuillfortFeatureFlags.hpp"

class QVBoxLayout;

namespace quillfort {
class AgentPromptCoordinator;
}

namespace quillfort::ui {

class QFText;

class AgentStatusView : public QWidget {
public:
    AgentStatusView(QuillfortFeatureFlags featureFlags, std::shared_ptr<AgentPromptCoordinator> coordinator,
                    QWidget* parent = nullptr);

protected:
    void showEvent(QShowEvent* event) override;

private:
    void scheduleRefresh();
    void refresh();
    void updatePromptRows();
    [[nodiscard]] QWidget* makePromptRow(const AgentPromptSession& session);
    void rebuildRecentRows();

    QuillfortFeatureFlags featureFlags_;
    std::shared_ptr<AgentPromptCoordinator> coordinator_;
    std::vector<Subscription> subscriptions_;
    bool refreshPending_ = false;

    QFText* summary_ = nullptr;
    QFText* listenerValue_ = nullptr;
    QFText* manifestValue_ = nullptr;
    QFText* activeTitle_ = nullptr;
    QVBoxLayout* promptRows_ = nullptr;
    QWidget* emptyQueueText_ = nullptr;
    // The rows shown, in queue order: a new prompt adds one row, an answer
    // removes one, so a long queue is never rebuilt.
    struct PromptRow {
        Uuid id;
        QWidget* widget;
    };
    std::vector<PromptRow> shownRows_;
    std::vector<AgentResolvedPrompt> shownRecent_;
    QVBoxLayout* recentRows_ = nullptr;
};

}  // namespace quillfort::ui
