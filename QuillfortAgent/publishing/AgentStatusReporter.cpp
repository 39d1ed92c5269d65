#include "QuillfortAgent/publishing/AgentStatusReporter.hpp"

#include <utility>

namespace quillfort {

namespace {

PromptAgentStatusSnapshot makeInitialStatus(const Clock& clock) {
    PromptAgentStatusSnapshot status;
    status.updatedAt = dateFrom(clock.now());
    status.statusText = "Starting prompt bridge...";
    return status;
}

}  // namespace

AgentStatusReporter::AgentStatusReporter(std::shared_ptr<AgentPromptCoordinator> coordinator,
                                         std::shared_ptr<MainThreadExecutor> mainThread,
                                         std::shared_ptr<FileSystem> fileSystem, PromptAgentStatusStore store,
                                         std::shared_ptr<Clock> clock)
    : coordinator_(std::move(coordinator)),
      mainThread_(std::move(mainThread)),
      clock_(std::move(clock)),
      fileSystem_(std::move(fileSystem)),
      publisher_(std::move(store), clock_, makeInitialStatus(*clock_)) {}

AgentStatusReporter::~AgentStatusReporter() {
    // The subscriptions belong to the coordinator's state, which only the main
    // thread may touch; the last owner of the host can be on any thread.
    auto observers = std::make_shared<std::pair<Subscription, Subscription>>(
        std::move(activePromptObserver_), std::move(promptWindowVisibilityObserver_));
    if (mainThread_) mainThread_->post([observers] { *observers = {}; });
}

PromptAgentStatusSnapshot AgentStatusReporter::initialStatus() const { return makeInitialStatus(*clock_); }

void AgentStatusReporter::observeCoordinator() {
    // Only the fact of a change matters; the state is read afresh when the task
    // runs, so a burst of changes (a queue filling up) needs one republish.
    // Observers are called on the main thread, like the flag's other uses.
    auto republish = [weak = weak_from_this(), mainThread = mainThread_] {
        auto self = weak.lock();
        if (!self || self->presentationRepublishPosted_) return;
        self->presentationRepublishPosted_ = true;
        mainThread->post([weak] {
            auto reporter = weak.lock();
            if (!reporter) return;
            reporter->presentationRepublishPosted_ = false;
            reporter->publishPresentationState();
        });
    };
    activePromptObserver_ = coordinator_->activePrompts().subscribe([republish](const auto&) { republish(); });
    promptWindowVisibilityObserver_ =
        coordinator_->promptWindowVisible().subscribe([republish](const auto&) { republish(); });
}

void AgentStatusReporter::publish(const Mutation& mutation) { updateCoordinatorListenerStatus(publisher_.publish(mutation)); }

void AgentStatusReporter::recordPromptReceived() {
    publish([at = dateFrom(clock_->now())](PromptAgentStatusSnapshot& status) { status.lastPromptReceivedAt = at; });
}

void AgentStatusReporter::recordPromptResolved() {
    publish([at = dateFrom(clock_->now())](PromptAgentStatusSnapshot& status) { status.lastPromptResolvedAt = at; });
}

void AgentStatusReporter::publishPresentationState() {
    updateCoordinatorListenerStatus(publisher_.publishPresentation(coordinator_->activePrompts().value(),
                                                                   coordinator_->promptWindowVisible().value()));
}

// The coordinator shows the status text, which most publications (the times
// of every prompt, the queue) leave as it was: only a new text makes the hop
// to the main thread, and a burst of them makes one, whose task reads the text
// when it runs, so the coordinator always ends with the newest.
void AgentStatusReporter::updateCoordinatorListenerStatus(const std::string& text) {
    {
        std::lock_guard lock(sentTextLock_);
        if (sentText_ == text) return;
        sentText_ = text;
    }
    if (listenerStatusUpdatePosted_.exchange(true)) return;
    mainThread_->post([weak = weak_from_this()] {
        auto self = weak.lock();
        if (!self) return;
        self->listenerStatusUpdatePosted_ = false;  // before reading: a later change posts again
        self->coordinator_->updateListenerStatus(self->publisher_.statusText());
    });
}

}  // namespace quillfort
