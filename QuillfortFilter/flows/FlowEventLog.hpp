// Every decision as a flow event, kept in a bounded ring (the oldest go
// first) and written, coalesced, to the shared folder's
// "FlowFilterMonitorSnapshot.json" for the agent and the command-line tool.
// A burst of decisions costs one write, at most one per interval, and each
// event is turned into JSON once, however many writes it appears in.
#pragma once

#include <algorithm>
#include <cstddef>
#include <deque>
#include <string>

#include "contracts/FlowFilterEvent.hpp"

namespace quillfort {

class FlowEventLog {
public:
    static constexpr std::size_t defaultCapacity = 1000;

    explicit FlowEventLog(std::size_t capacity = defaultCapacity) : capacity_(std::max<std::size_t>(capacity, 1)) {}

    // Returns true when this is the first event since the last snapshot was
    // taken: the caller then arms its write timer.
    bool append(FlowFilterEvent event);

    // The file's content: the events kept, oldest first, dated `now`, in the
    // compact form of a FlowFilterEventSnapshot. The log is no longer dirty.
    [[nodiscard]] std::string takeSnapshot(Date now);

    [[nodiscard]] bool dirty() const noexcept { return dirty_; }
    [[nodiscard]] std::size_t size() const noexcept { return events_.size(); }

private:
    struct Entry {
        FlowFilterEvent event;
        std::string json;  // empty until first written
    };

    std::size_t capacity_;
    std::deque<Entry> events_;
    bool dirty_ = false;
};

}  // namespace quillfort
