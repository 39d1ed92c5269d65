#include "QuillfortFilter/flows/FlowEventLog.hpp"

#include <unordered_set>

#include "model/Json.hpp"

namespace quillfort {

bool FlowEventLog::append(FlowFilterEvent event) {
    events_.push_back(std::make_shared<const FlowFilterEvent>(std::move(event)));
    while (events_.size() > capacity_) events_.pop_front();
    const bool first = !dirty_;
    dirty_ = true;
    return first;
}

std::vector<SharedFlowEvent> FlowEventLog::takeSnapshot() {
    dirty_ = false;
    return {events_.begin(), events_.end()};
}

std::string encodeFlowEvents(const std::vector<SharedFlowEvent>& events, Date generatedAt,
                             std::unordered_map<const FlowFilterEvent*, std::string>& cache) {
    // Events that left the ring are gone from the cache too; their addresses
    // may come back for new events, so nothing stale may stay.
    std::unordered_set<const FlowFilterEvent*> kept;
    for (const auto& event : events) kept.insert(event.get());
    std::erase_if(cache, [&](const auto& entry) { return !kept.contains(entry.first); });

    std::string text = "{\"generatedAt\":" + serializeCompact(toJson(generatedAt)) + ",\"events\":[";
    bool first = true;
    for (const auto& event : events) {
        auto [entry, added] = cache.try_emplace(event.get());
        if (added) entry->second = encodeCompact(*event);
        if (!first) text += ',';
        text += entry->second;
        first = false;
    }
    text += "]}";
    return text;
}

FlowEventWriter::FlowEventWriter(Failure failed) : failed_(std::move(failed)), thread_([this] { work(); }) {}

FlowEventWriter::~FlowEventWriter() {
    {
        std::lock_guard lock(mutex_);
        stopping_ = true;
    }
    wake_.notify_all();
    thread_.join();
}

void FlowEventWriter::write(std::shared_ptr<FileSystem> folder, std::filesystem::path file,
                            std::vector<SharedFlowEvent> events, Date generatedAt) {
    {
        std::lock_guard lock(mutex_);
        waiting_ = Job{std::move(folder), std::move(file), std::move(events), generatedAt};
    }
    wake_.notify_one();
}

void FlowEventWriter::drain() {
    std::unique_lock lock(mutex_);
    idle_.wait(lock, [this] { return !waiting_ && !busy_; });
}

void FlowEventWriter::work() {
    for (;;) {
        Job job;
        {
            std::unique_lock lock(mutex_);
            wake_.wait(lock, [this] { return stopping_ || waiting_; });
            if (!waiting_) return;  // stopping, nothing left
            job = std::move(*waiting_);
            waiting_.reset();
            busy_ = true;
        }
        const auto text = encodeFlowEvents(job.events, job.generatedAt, cache_);
        job.events.clear();  // the loop may free them now
        const auto container = job.file.parent_path();
        if (!job.folder->isDirectory(container)) (void)job.folder->createDirectories(container);
        if (auto written = job.folder->replaceFileWithoutSync(job.file, text); !written) failed_(written.error());
        {
            std::lock_guard lock(mutex_);
            busy_ = false;
        }
        idle_.notify_all();
    }
}

}  // namespace quillfort
