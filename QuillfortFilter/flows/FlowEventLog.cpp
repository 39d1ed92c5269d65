#include "QuillfortFilter/flows/FlowEventLog.hpp"

#include "model/Json.hpp"

namespace quillfort {

bool FlowEventLog::append(FlowFilterEvent event) {
    events_.push_back(Entry{std::move(event), {}});
    while (events_.size() > capacity_) events_.pop_front();
    const bool first = !dirty_;
    dirty_ = true;
    return first;
}

std::string FlowEventLog::takeSnapshot(Date now) {
    dirty_ = false;
    std::string text = "{\"generatedAt\":" + serializeCompact(toJson(now)) + ",\"events\":[";
    bool first = true;
    for (auto& entry : events_) {
        if (entry.json.empty()) entry.json = encodeCompact(entry.event);
        if (!first) text += ',';
        text += entry.json;
        first = false;
    }
    text += "]}";
    return text;
}

}  // namespace quillfort
