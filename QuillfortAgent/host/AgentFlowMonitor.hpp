// The filter's recent flow events, read from "FlowFilterMonitorSnapshot.json"
// in the shared folder for the network view. The file is read and decoded on
// a queue of its own whenever the filter replaces it, and the events come
// back to the main thread; nothing runs until the view first asks.
#pragma once

#include <filesystem>
#include <memory>
#include <optional>
#include <string>

#include "QuillfortAgent/coordinator/Observable.hpp"
#include "QuillfortAgent/host/MainThreadExecutor.hpp"
#include "contracts/FlowFilterEvent.hpp"
#include "platform/FileSystem.hpp"
#include "support/QuillfortLogger.hpp"

namespace quillfort {

struct AgentFlowEvents {
    // Oldest first, as the filter keeps them; shared and never changed once
    // published, so a view can hold on to ten thousand events without copying.
    std::shared_ptr<const FlowFilterEventSnapshot> snapshot;
    std::optional<std::string> problem;  // why the file could not be read
    bool operator==(const AgentFlowEvents&) const = default;
};

class AgentFlowMonitor : public std::enable_shared_from_this<AgentFlowMonitor> {
public:
    // The file is the shared folder's "FlowFilterMonitorSnapshot.json"; none: no events.
    [[nodiscard]] static std::shared_ptr<AgentFlowMonitor> make(std::shared_ptr<FileSystem> fileSystem,
                                                               std::optional<std::filesystem::path> eventsURL,
                                                               std::shared_ptr<MainThreadExecutor> mainThread);
    [[nodiscard]] static std::optional<std::filesystem::path> standardLocation(const FileSystem& fileSystem);
    ~AgentFlowMonitor();
    AgentFlowMonitor(const AgentFlowMonitor&) = delete;
    AgentFlowMonitor& operator=(const AgentFlowMonitor&) = delete;

    // Main thread: reads the file now and follows it from then on. Idempotent.
    void start();
    // Main thread.
    [[nodiscard]] Observable<AgentFlowEvents>& events() noexcept { return events_; }

    // Reads and decodes the file as it is now; for the queue and for tests.
    [[nodiscard]] AgentFlowEvents read() const;

private:
    AgentFlowMonitor(std::shared_ptr<FileSystem> fileSystem, std::optional<std::filesystem::path> eventsURL,
                     std::shared_ptr<MainThreadExecutor> mainThread);
    struct Worker;
    void refresh();

    std::shared_ptr<FileSystem> fileSystem_;
    std::optional<std::filesystem::path> eventsURL_;
    std::shared_ptr<MainThreadExecutor> mainThread_;
    Logger logger_{QuillfortLogCategory::agent};
    std::optional<FileIdentity> seenIdentity_;  // (queue)
    Observable<AgentFlowEvents> events_;        // (main thread)
    std::unique_ptr<Worker> worker_;
};

}  // namespace quillfort
