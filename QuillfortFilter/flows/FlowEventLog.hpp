// Every decision as a flow event, kept in a bounded ring (the oldest go
// first) and written, coalesced, to the shared folder's
// "FlowFilterMonitorSnapshot.json" for the agent and the command-line tool.
// A burst of decisions costs one write, at most one per interval.
#pragma once

#include <chrono>
#include <cstddef>
#include <algorithm>
#include <deque>
#include <functional>

#include "contracts/FlowFilterEvent.hpp"

namespace quillfort {

class FlowEventLog {
public:
    static constexpr std::size_t defaultCapacity = 1000;

    explicit FlowEventLog(std::size_t capacity = defaultCapacity) : capacity_(std::max<std::size_t>(capacity, 1)) {}

    // Returns true when this is the first event since the last snapshot was
    // taken: the caller then arms its write timer.
    bool append(FlowFilterEvent event);

    // The events kept, oldest first, dated `now`; the log is no longer dirty.
    [[nodiscard]] FlowFilterEventSnapshot takeSnapshot(Date now);

    [[nodiscard]] bool dirty() const noexcept { return dirty_; }
    [[nodiscard]] std::size_t size() const noexcept { return events_.size(); }
    [[nodiscard]] const std::deque<FlowFilterEvent>& events() const noexcept { return events_; }

private:
    std::size_t capacity_;
    std::deque<FlowFilterEvent> events_;
    bool dirty_ = false;
};

}  // namespace quillfort
