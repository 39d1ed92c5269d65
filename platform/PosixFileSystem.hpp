// The file system on the real disk through POSIX calls. The environment and
// the console-session query are injected so the home and temporary directory
// logic can be tested without touching the process's own.
#pragma once

#include <functional>

#include <sys/types.h>

#include "platform/FileSystem.hpp"
#include "platform/ProcessInfo.hpp"

namespace quillfort {

class PosixFileSystem final : public FileSystem {
public:
    // Answers the uid of the user at the console, or nothing. Must be safe to
    // call from several threads.
    using ConsoleUserQuery = std::function<std::optional<uid_t>()>;

    // `consoleUser` defaults to asking systemd-logind.
    explicit PosixFileSystem(const ProcessInfo& processInfo, ConsoleUserQuery consoleUser = {});

    [[nodiscard]] std::optional<std::filesystem::path> currentHomeDirectory() const override;
    [[nodiscard]] std::optional<std::filesystem::path> appGroupContainer(
        std::string_view groupIdentifier) const override;
    [[nodiscard]] std::optional<std::filesystem::path> consoleUserHomeDirectory() const override;

    [[nodiscard]] bool exists(const std::filesystem::path& path) const override;
    [[nodiscard]] bool isDirectory(const std::filesystem::path& path) const override;

    [[nodiscard]] VoidResult createDirectories(const std::filesystem::path& path) override;
    [[nodiscard]] VoidResult setPosixPermissions(const std::filesystem::path& path,
                                                 unsigned mode) override;
    [[nodiscard]] VoidResult removeItem(const std::filesystem::path& path) override;

    [[nodiscard]] Result<std::string> readFile(const std::filesystem::path& path) const override;
    [[nodiscard]] Result<FileIdentity> fileIdentity(const std::filesystem::path& path) const override;
    [[nodiscard]] VoidResult writeFileAtomically(const std::filesystem::path& path,
                                                 std::string_view bytes) override;
    [[nodiscard]] VoidResult replaceFileWithoutSync(const std::filesystem::path& path,
                                                    std::string_view bytes) override;

    [[nodiscard]] Result<std::vector<DirectoryEntry>> listDirectory(
        const std::filesystem::path& path, bool skipHiddenEntries) const override;

    [[nodiscard]] std::filesystem::path temporaryDirectory() const override;

private:
    [[nodiscard]] static VoidResult replaceFile(const std::filesystem::path& path, std::string_view bytes,
                                                bool durable);

    // Both read once from the injected environment; empty values count as unset.
    std::optional<std::filesystem::path> homeFromEnvironment_;
    std::optional<std::filesystem::path> temporaryFromEnvironment_;
    ConsoleUserQuery consoleUser_;
};

}  // namespace quillfort
