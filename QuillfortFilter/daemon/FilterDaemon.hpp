// The filter as a running daemon: serves the queue, attributes and decides
// each new flow, asks the agent when it must, records every decision and
// keeps its rules current. One event loop on one thread does all of it and
// sleeps on its descriptors (queue, DNS log, file-change notifications,
// login sessions, signals); executable hashing runs on a worker, and the
// prompt client on its own thread, both handing results back to the loop.
#pragma once

#include <memory>

#include "QuillfortFilter/daemon/FilterSettings.hpp"

namespace quillfort {

class FilterDaemon {
public:
    explicit FilterDaemon(FilterOptions options);
    ~FilterDaemon();
    FilterDaemon(const FilterDaemon&) = delete;
    FilterDaemon& operator=(const FilterDaemon&) = delete;

    // Sets up (kernel rules last, so no packet is queued before it can be
    // served), tells systemd it is ready and runs until SIGTERM or SIGINT.
    // 0 after a clean stop, 1 when it could not start.
    int run();

private:
    struct State;
    std::unique_ptr<State> state_;
};

}  // namespace quillfort
