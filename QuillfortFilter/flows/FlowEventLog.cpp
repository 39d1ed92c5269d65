#include "QuillfortFilter/flows/FlowEventLog.hpp"

namespace quillfort {

bool FlowEventLog::append(FlowFilterEvent event) {
    events_.push_back(std::move(event));
    while (events_.size() > capacity_) events_.pop_front();
    const bool first = !dirty_;
    dirty_ = true;
    return first;
}

FlowFilterEventSnapshot FlowEventLog::takeSnapshot(Date now) {
    dirty_ = false;
    return FlowFilterEventSnapshot{now, {events_.begin(), events_.end()}};
}

}  // namespace quillfort
