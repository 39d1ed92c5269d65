// Every decision as a flow event, kept in a bounded ring (the oldest go
// first) and written, coalesced, to the shared folder's
// "FlowFilterMonitorSnapshot.json" for the agent and the command-line tool.
// The loop only hands the writer thread the events it keeps; turning them
// into JSON (each event once, however many writes it appears in) and
// writing the file happen there, so a burst of decisions never stalls the
// verdicts.
#pragma once

#include <algorithm>
#include <functional>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "contracts/FlowFilterEvent.hpp"
#include "platform/FileSystem.hpp"

namespace quillfort {

using SharedFlowEvent = std::shared_ptr<const FlowFilterEvent>;

class FlowEventLog {
public:
    static constexpr std::size_t defaultCapacity = 1000;

    explicit FlowEventLog(std::size_t capacity = defaultCapacity) : capacity_(std::max<std::size_t>(capacity, 1)) {}

    // Returns true when this is the first event since the last snapshot was
    // taken: the caller then arms its write timer.
    bool append(FlowFilterEvent event);

    // The events kept, oldest first; the log is no longer dirty.
    [[nodiscard]] std::vector<SharedFlowEvent> takeSnapshot();

    [[nodiscard]] bool dirty() const noexcept { return dirty_; }
    [[nodiscard]] std::size_t size() const noexcept { return events_.size(); }

private:
    std::size_t capacity_;
    std::deque<SharedFlowEvent> events_;
    bool dirty_ = false;
};

// The file's content: the events, oldest first, dated `generatedAt`, in the
// compact form of a FlowFilterEventSnapshot. `cache` keeps each event's JSON
// between calls and is trimmed to the events given.
[[nodiscard]] std::string encodeFlowEvents(const std::vector<SharedFlowEvent>& events, Date generatedAt,
                                           std::unordered_map<const FlowFilterEvent*, std::string>& cache);

// Writes snapshots on a thread of its own. A snapshot handed over while the
// previous one is still being written replaces any other still waiting: only
// the newest is ever written.
class FlowEventWriter {
public:
    using Failure = std::function<void(const Error&)>;

    explicit FlowEventWriter(Failure failed);
    ~FlowEventWriter();
    FlowEventWriter(const FlowEventWriter&) = delete;
    FlowEventWriter& operator=(const FlowEventWriter&) = delete;

    void write(std::shared_ptr<FileSystem> folder, std::filesystem::path file, std::vector<SharedFlowEvent> events,
               Date generatedAt);
    // Waits until nothing is waiting or being written (the filter's last act).
    void drain();

private:
    struct Job {
        std::shared_ptr<FileSystem> folder;
        std::filesystem::path file;
        std::vector<SharedFlowEvent> events;
        Date generatedAt{};
    };
    void work();

    Failure failed_;
    std::mutex mutex_;
    std::condition_variable wake_;
    std::condition_variable idle_;
    std::optional<Job> waiting_;
    bool busy_ = false;
    bool stopping_ = false;
    std::unordered_map<const FlowFilterEvent*, std::string> cache_;  // the thread's own
    std::thread thread_;
};

}  // namespace quillfort
