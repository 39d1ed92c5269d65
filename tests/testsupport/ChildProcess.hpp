// Runs another program of the build for end-to-end tests: its own environment,
// standard output and error captured in files, a bounded wait, and a kill when
// the test ends so that no child outlives it.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <expected>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "tests/testsupport/TemporaryDirectory.hpp"

namespace quillfort::testing {

class ChildProcess {
public:
    // Starts `program` with `arguments` (program name excluded) and exactly the
    // variables in `environment`; output goes to files in `outputDirectory`.
    [[nodiscard]] static std::expected<ChildProcess, std::string> start(
        const std::filesystem::path& program, const std::vector<std::string>& arguments,
        const std::map<std::string, std::string>& environment, const std::filesystem::path& outputDirectory);

    ChildProcess(ChildProcess&& other) noexcept;
    ChildProcess& operator=(ChildProcess&&) = delete;
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;
    // Kills and reaps the child if it still runs.
    ~ChildProcess();

    // The exit status (128 + signal number when a signal ended it), or nothing
    // when the child still runs after `limit`.
    [[nodiscard]] std::optional<int> waitFor(std::chrono::milliseconds limit);
    void sendSignal(int signal) const;

    [[nodiscard]] pid_t pid() const noexcept { return pid_; }
    [[nodiscard]] std::string standardOutput() const;
    [[nodiscard]] std::string standardError() const;

private:
    ChildProcess(pid_t pid, std::filesystem::path stdoutFile, std::filesystem::path stderrFile)
        : pid_(pid), stdoutFile_(std::move(stdoutFile)), stderrFile_(std::move(stderrFile)) {}

    pid_t pid_ = -1;
    std::optional<int> exitStatus_;
    std::filesystem::path stdoutFile_;
    std::filesystem::path stderrFile_;
};

}  // namespace quillfort::testing
