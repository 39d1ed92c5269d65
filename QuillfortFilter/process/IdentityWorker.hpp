// Hashing and package look-ups, off the event loop: executables are queued
// once each (a file already queued is not queued again) and computed one
// after the other on a thread of their own; each result is handed to `done`,
// on that thread, which passes it back to the loop.
#pragma once

#include <condition_variable>
#include <deque>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <tuple>

#include "QuillfortFilter/process/ExecutableIdentities.hpp"

namespace quillfort {

class IdentityWorker {
public:
    using Done = std::function<void(ExecutableFileKey, ExecutableCodeIdentity)>;
    struct Job {
        ExecutableFileKey key;
        std::filesystem::path executable;
        std::string executablePath;
        std::optional<std::filesystem::path> processRoot;
    };

    IdentityWorker(std::shared_ptr<ExecutableIdentities> identities, Done done)
        : identities_(std::move(identities)), done_(std::move(done)), thread_([this] { work(); }) {}
    ~IdentityWorker() {
        {
            std::lock_guard lock(mutex_);
            stopping_ = true;
        }
        wake_.notify_all();
        thread_.join();
    }

    void submit(Job job) {
        {
            std::lock_guard lock(mutex_);
            if (queued_.contains(job.key)) return;
            queued_.insert(job.key);
            jobs_.push_back(std::move(job));
        }
        wake_.notify_one();
    }

private:
    struct KeyLess {
        bool operator()(const ExecutableFileKey& a, const ExecutableFileKey& b) const {
            return std::tie(a.device, a.inode, a.modificationNs, a.size) <
                   std::tie(b.device, b.inode, b.modificationNs, b.size);
        }
    };

    void work() {
        for (;;) {
            Job job;
            {
                std::unique_lock lock(mutex_);
                wake_.wait(lock, [this] { return stopping_ || !jobs_.empty(); });
                if (stopping_) return;
                job = std::move(jobs_.front());
                jobs_.pop_front();
            }
            auto identity = identities_->compute(job.key, job.executable, job.executablePath, job.processRoot);
            {
                std::lock_guard lock(mutex_);
                queued_.erase(job.key);
            }
            done_(job.key, std::move(identity));
        }
    }

    std::shared_ptr<ExecutableIdentities> identities_;
    Done done_;
    std::mutex mutex_;
    std::condition_variable wake_;
    std::deque<Job> jobs_;
    std::set<ExecutableFileKey, KeyLess> queued_;
    bool stopping_ = false;
    std::thread thread_;
};

}  // namespace quillfort
