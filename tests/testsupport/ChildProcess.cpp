#include "tests/testsupport/ChildProcess.hpp"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <thread>
#include <utility>

namespace quillfort::testing {

std::expected<ChildProcess, std::string> ChildProcess::start(const std::filesystem::path& program,
                                                             const std::vector<std::string>& arguments,
                                                             const std::map<std::string, std::string>& environment,
                                                             const std::filesystem::path& outputDirectory) {
    static std::atomic<int> counter{0};
    const std::string stem = program.filename().string() + "-" + std::to_string(counter++);
    auto stdoutFile = outputDirectory / (stem + ".out");
    auto stderrFile = outputDirectory / (stem + ".err");

    std::vector<std::string> argvStorage{program.string()};
    argvStorage.insert(argvStorage.end(), arguments.begin(), arguments.end());
    std::vector<char*> argv;
    for (auto& argument : argvStorage) argv.push_back(argument.data());
    argv.push_back(nullptr);
    std::vector<std::string> envStorage;
    for (const auto& [name, value] : environment) envStorage.push_back(name + "=" + value);
    std::vector<char*> envp;
    for (auto& entry : envStorage) envp.push_back(entry.data());
    envp.push_back(nullptr);

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 1, stdoutFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    posix_spawn_file_actions_addopen(&actions, 2, stderrFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    pid_t pid = -1;
    const int error = ::posix_spawn(&pid, program.c_str(), &actions, nullptr, argv.data(), envp.data());
    posix_spawn_file_actions_destroy(&actions);
    if (error != 0) return std::unexpected(program.string() + ": " + std::strerror(error));
    return ChildProcess(pid, std::move(stdoutFile), std::move(stderrFile));
}

ChildProcess::ChildProcess(ChildProcess&& other) noexcept
    : pid_(std::exchange(other.pid_, -1)),
      exitStatus_(other.exitStatus_),
      stdoutFile_(std::move(other.stdoutFile_)),
      stderrFile_(std::move(other.stderrFile_)) {}

ChildProcess::~ChildProcess() {
    if (pid_ <= 0 || exitStatus_) return;
    ::kill(pid_, SIGKILL);
    int status = 0;
    ::waitpid(pid_, &status, 0);
}

std::optional<int> ChildProcess::waitFor(std::chrono::milliseconds limit) {
    if (exitStatus_) return exitStatus_;
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (true) {
        int status = 0;
        const pid_t done = ::waitpid(pid_, &status, WNOHANG);
        if (done == pid_) {
            // Without WUNTRACED a reaped child either exited or was killed.
            exitStatus_ = WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
            return exitStatus_;
        }
        if (done < 0 && errno != EINTR) return std::nullopt;
        if (std::chrono::steady_clock::now() >= deadline) return std::nullopt;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
}

void ChildProcess::sendSignal(int signal) const {
    if (pid_ > 0 && !exitStatus_) ::kill(pid_, signal);
}

std::string ChildProcess::standardOutput() const { return readText(stdoutFile_).value_or(""); }
std::string ChildProcess::standardError() const { return readText(stderrFile_).value_or(""); }

}  // namespace quillfort::testing
