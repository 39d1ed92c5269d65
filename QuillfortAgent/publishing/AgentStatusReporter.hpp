// Status publishing of the service host: every change goes to the status
// publisher (memory and the shared status file), and its text to the
// coordinator, which shows it; the coordinator's queue and window state are
// followed and republished as they change.
#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <string>

#include "QuillfortAgent/coordinator/AgentPromptCoordinator.hpp"
#include "QuillfortAgent/coordinator/Observable.hpp"
#include "QuillfortAgent/host/MainThreadExecutor.hpp"
#include "QuillfortAgent/publishing/AgentStatusPublisher.hpp"
#include "contracts/PromptAgentStatusSnapshot.hpp"
#include "contracts/PromptAgentStatusStore.hpp"
#include "platform/Clock.hpp"
#include "platform/FileSystem.hpp"

namespace quillfort {

// Threads: publish(), the record functions, snapshot() and stop() from any
// thread (the bridge queue above all); observeCoordinator() and
// publishPresentationState() on the main thread, where the coordinator lives;
// the file is written on the publisher's writer thread.
class AgentStatusReporter : public std::enable_shared_from_this<AgentStatusReporter> {
public:
    using Mutation = AgentStatusPublisher::Mutation;

    AgentStatusReporter(std::shared_ptr<AgentPromptCoordinator> coordinator,
                        std::shared_ptr<MainThreadExecutor> mainThread, std::shared_ptr<FileSystem> fileSystem,
                        PromptAgentStatusStore store, std::shared_ptr<Clock> clock);
    // Lets go of the coordinator subscriptions on the main thread.
    ~AgentStatusReporter();
    AgentStatusReporter(const AgentStatusReporter&) = delete;
    AgentStatusReporter& operator=(const AgentStatusReporter&) = delete;

    // "Starting prompt bridge..." and nothing ready, stamped now.
    [[nodiscard]] PromptAgentStatusSnapshot initialStatus() const;

    // Republishes the presentation whenever the coordinator's queue or window
    // visibility changes.
    void observeCoordinator();

    void publish(const Mutation& mutation);
    void recordPromptReceived();
    void recordPromptResolved();
    void publishPresentationState();

    [[nodiscard]] PromptAgentStatusSnapshot snapshot() const { return publisher_.snapshot(); }
    // See AgentStatusPublisher::stop.
    void stop(bool flushPending) { publisher_.stop(flushPending); }

private:
    void updateCoordinatorListenerStatus(const std::string& text);

    std::shared_ptr<AgentPromptCoordinator> coordinator_;
    std::shared_ptr<MainThreadExecutor> mainThread_;
    std::shared_ptr<Clock> clock_;
    std::shared_ptr<FileSystem> fileSystem_;  // the store refers to it
    AgentStatusPublisher publisher_;
    // Set while a task that hands the newest status text to the coordinator
    // waits on the main thread; any thread.
    std::atomic<bool> listenerStatusUpdatePosted_{false};
    std::mutex sentTextLock_;
    std::string sentText_;  // the last text handed on (or about to be)

    // Main thread only.
    bool presentationRepublishPosted_ = false;  // one republish waits at a time
    Subscription activePromptObserver_;
    Subscription promptWindowVisibilityObserver_;
};

}  // namespace quillfort
