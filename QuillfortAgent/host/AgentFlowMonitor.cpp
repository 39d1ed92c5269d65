#include "QuillfortAgent/host/AgentFlowMonitor.hpp"

#include <utility>

#include "QuillfortAgent/host/BridgeQueue.hpp"
#include "QuillfortAgent/transports/DirectoryWatcher.hpp"
#include "contracts/JsonFileStore.hpp"
#include "contracts/QuillfortSharedContainer.hpp"

namespace quillfort {

struct AgentFlowMonitor::Worker {
    BridgeQueue queue;
    std::shared_ptr<DirectoryWatcher> watcher;
};

std::shared_ptr<AgentFlowMonitor> AgentFlowMonitor::make(std::shared_ptr<FileSystem> fileSystem,
                                                         std::optional<std::filesystem::path> eventsURL,
                                                         std::shared_ptr<MainThreadExecutor> mainThread) {
    return std::shared_ptr<AgentFlowMonitor>(
        new AgentFlowMonitor(std::move(fileSystem), std::move(eventsURL), std::move(mainThread)));
}

std::optional<std::filesystem::path> AgentFlowMonitor::standardLocation(const FileSystem& fileSystem) {
    auto container = QuillfortSharedContainer::containerURL(fileSystem, std::nullopt);
    if (!container) return std::nullopt;
    return *container / QuillfortSharedContainer::flowFilterMonitorSnapshotFilename;
}

AgentFlowMonitor::AgentFlowMonitor(std::shared_ptr<FileSystem> fileSystem,
                                   std::optional<std::filesystem::path> eventsURL,
                                   std::shared_ptr<MainThreadExecutor> mainThread)
    : fileSystem_(std::move(fileSystem)), eventsURL_(std::move(eventsURL)), mainThread_(std::move(mainThread)) {
    events_.set({std::make_shared<const FlowFilterEventSnapshot>(), std::nullopt});
}

AgentFlowMonitor::~AgentFlowMonitor() {
    if (!worker_) return;
    worker_->queue.shutdown([this] {
        if (worker_->watcher) worker_->watcher->cancel();
    });
}

AgentFlowEvents AgentFlowMonitor::read() const {
    JsonFileStore<FlowFilterEventSnapshot> store(*fileSystem_, eventsURL_);
    auto loaded = store.loadIfPresent();
    if (!loaded) return {std::make_shared<const FlowFilterEventSnapshot>(), loaded.error().description};
    if (!*loaded) return {std::make_shared<const FlowFilterEventSnapshot>(), std::nullopt};
    return {std::make_shared<const FlowFilterEventSnapshot>(std::move(**loaded)), std::nullopt};
}

void AgentFlowMonitor::start() {
    if (worker_ || !eventsURL_) return;
    worker_ = std::make_unique<Worker>();
    worker_->queue.post([weak = weak_from_this()] {
        auto self = weak.lock();
        if (!self) return;
        self->refresh();
        // The folder may not exist before the filter first writes; then there
        // is nothing to follow yet and the view shows what it has.
        auto watcher = DirectoryWatcher::make(self->worker_->queue.context(), {self->eventsURL_->parent_path()});
        if (!watcher) {
            self->logger_.error("Cannot follow the flow events: %{public}s", watcher.error());
            return;
        }
        self->worker_->watcher = *watcher;
        self->worker_->watcher->start([weak] {
            if (auto monitor = weak.lock()) monitor->refresh();
        });
    });
}

void AgentFlowMonitor::refresh() {
    // Other files of the folder change too; only a new events file is read.
    const auto identity = fileSystem_->fileIdentity(*eventsURL_).value_or(FileIdentity{});
    if (seenIdentity_ && *seenIdentity_ == identity) return;
    seenIdentity_ = identity;
    mainThread_->post([weak = weak_from_this(), events = read()]() mutable {
        if (auto self = weak.lock()) self->events_.set(std::move(events));
    });
}

}  // namespace quillfort
