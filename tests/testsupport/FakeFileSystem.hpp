// A file system for tests: real files (put them under a TemporaryDirectory),
// but the homes and the container are whatever the test says, and chosen
// operations can be made to fail with a given errno.
#pragma once

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/FileSystem.hpp"

namespace quillfort::testing {

class FakeFileSystem final : public FileSystem {
public:
    enum class Operation {
        createDirectories,
        setPosixPermissions,
        removeItem,
        readFile,
        fileIdentity,
        writeFileAtomically,
        listDirectory,
    };

    // One call of a mutating or reading operation, as the fake saw it.
    struct Call {
        Operation operation;
        std::filesystem::path path;
        std::optional<unsigned> mode;  // setPosixPermissions only

        bool operator==(const Call&) const = default;
    };
    using Listing = std::vector<std::pair<std::string, std::optional<std::chrono::system_clock::time_point>>>;

    // Everything absent until set; the temporary directory is /tmp.
    FakeFileSystem();
    explicit FakeFileSystem(std::filesystem::path homeDirectory);

    void setHomeDirectory(std::optional<std::filesystem::path> home) { locked([&] { home_ = std::move(home); }); }
    // Answered for every group identifier.
    void setAppGroupContainer(std::optional<std::filesystem::path> container) {
        locked([&] { appGroupContainer_ = std::move(container); });
    }
    void setConsoleUserHomeDirectory(std::optional<std::filesystem::path> home) {
        locked([&] { consoleHome_ = std::move(home); });
    }

    // The next call of `operation` (on any path) fails with `err` and does nothing.
    void failNext(Operation operation, int err) { locked([&] { rules_.push_back({operation, std::nullopt, err}); }); }
    // Every call of `operation` on `path` fails with `err` until clearFailures().
    // Paths are compared in lexically normal form.
    void failOn(Operation operation, const std::filesystem::path& path, int err) {
        locked([&] { rules_.push_back({operation, path.lexically_normal(), err}); });
    }
    void clearFailures() { locked([&] { rules_.clear(); }); }
    // Directory listings give only these names, in this order, with these
    // creation dates (absent: unknown), so that ordering does not depend on
    // the clock; an empty list lists the disk as it is.
    void chooseListing(Listing listing) { locked([&] { listing_ = std::move(listing); }); }

    // Calls so far, failed ones included.
    [[nodiscard]] std::vector<Call> calls() const { return locked([&] { return calls_; }); }
    // How many calls of `operation` there were so far (on `path`, when given).
    [[nodiscard]] long count(Operation operation, const std::optional<std::filesystem::path>& path = {}) const {
        const auto seen = calls();
        return std::ranges::count_if(
            seen, [&](const Call& c) { return c.operation == operation && (!path || c.path == *path); });
    }

    [[nodiscard]] std::optional<std::filesystem::path> currentHomeDirectory() const override {
        return locked([&] { return home_; });
    }
    [[nodiscard]] std::optional<std::filesystem::path> appGroupContainer(std::string_view) const override {
        return locked([&] { return appGroupContainer_; });
    }
    [[nodiscard]] std::optional<std::filesystem::path> consoleUserHomeDirectory() const override {
        return locked([&] { return consoleHome_; });
    }
    [[nodiscard]] std::filesystem::path temporaryDirectory() const override {
        return "/tmp";
    }
    [[nodiscard]] bool exists(const std::filesystem::path& path) const override { return real_->exists(path); }
    [[nodiscard]] bool isDirectory(const std::filesystem::path& path) const override {
        return real_->isDirectory(path);
    }
    [[nodiscard]] VoidResult createDirectories(const std::filesystem::path& path) override;
    [[nodiscard]] VoidResult setPosixPermissions(const std::filesystem::path& path, unsigned mode) override;
    [[nodiscard]] VoidResult removeItem(const std::filesystem::path& path) override;
    [[nodiscard]] Result<std::string> readFile(const std::filesystem::path& path) const override;
    [[nodiscard]] Result<FileIdentity> fileIdentity(const std::filesystem::path& path) const override;
    [[nodiscard]] VoidResult writeFileAtomically(const std::filesystem::path& path,
                                                 std::string_view bytes) override;
    [[nodiscard]] Result<std::vector<DirectoryEntry>> listDirectory(
        const std::filesystem::path& path, bool skipHiddenEntries) const override;

private:
    struct Rule {
        Operation operation;
        std::optional<std::filesystem::path> path;  // absent: the next call on any path
        int err;
    };

    // The host under test calls from its own threads while the test sets up.
    template <class Function>
    auto locked(Function function) const -> decltype(function()) {
        std::lock_guard lock(mutex_);
        return function();
    }
    // Records the call, then fails it with the injected errno, if any, or
    // lets the real file system do it.
    template <class Function>
    auto guarded(Operation operation, const std::filesystem::path& path, Function real,
                 std::optional<unsigned> mode = std::nullopt) const -> decltype(real()) {
        if (auto err = enter(operation, path, mode)) return std::unexpected(Error::fromErrno(*err, path.native()));
        return real();
    }
    [[nodiscard]] std::optional<int> enter(Operation operation, const std::filesystem::path& path,
                                           std::optional<unsigned> mode) const;

    std::unique_ptr<FileSystem> real_;
    mutable std::mutex mutex_;
    std::optional<std::filesystem::path> home_;
    std::optional<std::filesystem::path> appGroupContainer_;
    std::optional<std::filesystem::path> consoleHome_;
    mutable std::vector<Rule> rules_;
    mutable std::vector<Call> calls_;
    Listing listing_;
};

}  // namespace quillfort::testing
