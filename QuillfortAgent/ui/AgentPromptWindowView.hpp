// The root of the decision window: the idle view for an empty queue, otherwise
// the prompt view bound to the head of the queue. Both are built once; a new
// head rebinds the prompt view.
#pragma once

#include <memory>
#include <vector>

#include <QStackedWidget>

#include "QuillfortAgent/coordinator/Observable.hpp"

namespace quillfort {
class AgentPromptCoordinator;
}

namespace quillfort::ui {

class IdleView;
class TrafficPromptView;

class AgentPromptWindowView : public QStackedWidget {
public:
    explicit AgentPromptWindowView(std::shared_ptr<AgentPromptCoordinator> coordinator, QWidget* parent = nullptr);

    [[nodiscard]] TrafficPromptView& promptView() const noexcept { return *promptView_; }
    [[nodiscard]] IdleView& idleView() const noexcept { return *idleView_; }
    // Brings the widgets up to date with the coordinator now.
    void refresh();

private:
    void scheduleRefresh();

    std::shared_ptr<AgentPromptCoordinator> coordinator_;
    IdleView* idleView_;
    TrafficPromptView* promptView_;
    std::vector<Subscription> subscriptions_;
    bool refreshPending_ = false;
};

}  // namespace quillfort::ui
