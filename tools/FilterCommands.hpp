// `quillfort filter`: what the running filter says about itself and the
// decisions it recorded last, and changing its mode and unknown-traffic mode
// in its configuration file (the filter follows the file as it changes).
#pragma once

#include <filesystem>
#include <optional>
#include <ostream>
#include <string>

#include <CLI/CLI.hpp>

#include "contracts/QuillfortFilterStatus.hpp"
#include "platform/FileSystem.hpp"

namespace quillfort::FilterCommands {

struct Options {
    std::string action;  // status, mode, unknown-traffic
    std::string value;
    std::filesystem::path statusFile{std::string(QuillfortFilterStatusFile::defaultPath)};
    std::filesystem::path configurationFile{"/etc/quillfort/filter.json"};
    std::optional<std::filesystem::path> home;
    bool json = false;
    std::size_t recent = 10;
};

// Adds the `filter` command and its options to `app`.
[[nodiscard]] CLI::App* describe(CLI::App& app, Options& options);

[[nodiscard]] int run(const Options& options, FileSystem& fileSystem, std::ostream& out, std::ostream& err);

// The status as people read it, with the newest of `events` last.
[[nodiscard]] std::string formatStatus(const QuillfortFilterStatus& status, bool running,
                                       const std::vector<FlowFilterEvent>& events, std::size_t recent);

}  // namespace quillfort::FilterCommands
