#include "QuillfortAgent/ui/AgentPromptWindowView.hpp"

#include <QTimer>

#include "QuillfortAgent/coordinator/AgentPromptCoordinator.hpp"
#include "QuillfortAgent/ui/IdleView.hpp"
#include "QuillfortAgent/ui/TrafficPromptView.hpp"

namespace quillfort::ui {

AgentPromptWindowView::AgentPromptWindowView(std::shared_ptr<AgentPromptCoordinator> coordinator, QWidget* parent)
    : QStackedWidget(parent),
      coordinator_(std::move(coordinator)),
      idleView_(new IdleView(this)),
      promptView_(new TrafficPromptView(*coordinator_, this)) {
    setObjectName("AgentPromptWindowView");
    idleView_->setMinimumSize(400, 280);
    promptView_->setMinimumSize(560, 560);
    addWidget(idleView_);
    addWidget(promptView_);
    auto schedule = [this](const auto&) { scheduleRefresh(); };
    subscriptions_.push_back(coordinator_->activePrompts().subscribe(schedule));
    subscriptions_.push_back(coordinator_->recentResponses().subscribe(schedule));
    subscriptions_.push_back(coordinator_->listenerStatus().subscribe(schedule));
    subscriptions_.push_back(coordinator_->endpointPath().subscribe(schedule));
    refresh();
}

void AgentPromptWindowView::scheduleRefresh() {
    // One redraw per burst of changes, on the next turn of the event loop, so
    // that queueing a thousand prompts costs one bind and not a thousand.
    if (refreshPending_) return;
    refreshPending_ = true;
    QTimer::singleShot(0, this, [this] {
        refreshPending_ = false;
        refresh();
    });
}

void AgentPromptWindowView::refresh() {
    const auto& queue = coordinator_->activePrompts().value();
    if (queue.empty()) {
        idleView_->bind(coordinator_->listenerStatus().value(), coordinator_->endpointPath().value(),
                        coordinator_->recentResponses().value());
        setCurrentWidget(idleView_);
        return;
    }
    promptView_->bind(queue.front(), queue.size());
    setCurrentWidget(promptView_);
}

}  // namespace quillfort::ui
