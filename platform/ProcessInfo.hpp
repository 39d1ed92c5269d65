// What a process knows about itself at start: its environment, arguments and
// identifier. Logic takes this value instead of reading getenv behind the
// tests' back.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

namespace quillfort {

struct ProcessInfo {
    std::map<std::string, std::string> environment;
    std::vector<std::string> arguments;  // argv, the program name first
    int processIdentifier = 0;

    [[nodiscard]] std::optional<std::string> environmentValue(const std::string& name) const;

    // The running process: environ, the given argv, getpid().
    [[nodiscard]] static ProcessInfo current(int argc = 0, char** argv = nullptr);

    bool operator==(const ProcessInfo&) const = default;
};

}  // namespace quillfort
