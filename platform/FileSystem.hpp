// The file-system service that stores, the endpoint store and the service host
// take instead of touching the disk themselves, so tests can inject homes,
// containers and failures.
#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/Error.hpp"

namespace quillfort {

struct DirectoryEntry {
    std::filesystem::path path;
    // Birth time where the file system keeps one, else the modification time;
    // absent when neither can be read.
    std::optional<std::chrono::system_clock::time_point> creationDate;

    bool operator==(const DirectoryEntry&) const = default;
};

// What tells one version of a file from another without reading it: a file
// replaced by a rename or rewritten in place differs in at least one field.
struct FileIdentity {
    std::uint64_t device = 0;
    std::uint64_t inode = 0;
    std::uint64_t size = 0;
    std::chrono::sys_time<std::chrono::nanoseconds> modificationTime{};

    bool operator==(const FileIdentity&) const = default;
};

// Every operation reports failures with the errno they came from, so callers
// can tell "missing" (ENOENT) or "not allowed" (EPERM, EACCES, EROFS) apart.
// Implementations are safe to use from several threads at once.
class FileSystem {
public:
    virtual ~FileSystem() = default;

    // The home of the user the process runs as.
    [[nodiscard]] virtual std::optional<std::filesystem::path> currentHomeDirectory() const = 0;
    // The system-assigned container of an application group; Linux has none.
    [[nodiscard]] virtual std::optional<std::filesystem::path> appGroupContainer(
        std::string_view groupIdentifier) const = 0;
    // The home of the user signed in at the machine's console, when one is known.
    [[nodiscard]] virtual std::optional<std::filesystem::path> consoleUserHomeDirectory() const = 0;

    [[nodiscard]] virtual bool exists(const std::filesystem::path& path) const = 0;
    [[nodiscard]] virtual bool isDirectory(const std::filesystem::path& path) const = 0;

    // Creates the directory and every missing parent; an existing directory is fine.
    [[nodiscard]] virtual VoidResult createDirectories(const std::filesystem::path& path) = 0;
    [[nodiscard]] virtual VoidResult setPosixPermissions(const std::filesystem::path& path,
                                                         unsigned mode) = 0;
    // Removes a file, or a directory with everything in it. A missing item fails with ENOENT.
    [[nodiscard]] virtual VoidResult removeItem(const std::filesystem::path& path) = 0;

    [[nodiscard]] virtual Result<std::string> readFile(const std::filesystem::path& path) const = 0;
    // The identity of the file at `path`, symbolic links followed.
    [[nodiscard]] virtual Result<FileIdentity> fileIdentity(const std::filesystem::path& path) const = 0;
    // Replaces the file in one step: readers see the old content or the new,
    // never a mix. Missing parent directories are not created.
    [[nodiscard]] virtual VoidResult writeFileAtomically(const std::filesystem::path& path,
                                                         std::string_view bytes) = 0;
    // The same one-step replacement without waiting for the disk: for mirrors
    // and hand-offs that are rebuilt anyway after a crash (the status file,
    // bridge responses). Readers still never see a mix; a crash may leave the
    // previous version. By default as durable as writeFileAtomically.
    [[nodiscard]] virtual VoidResult replaceFileWithoutSync(const std::filesystem::path& path,
                                                            std::string_view bytes) {
        return writeFileAtomically(path, bytes);
    }

    // The entries in the order the directory gives them; "." and ".." never appear.
    [[nodiscard]] virtual Result<std::vector<DirectoryEntry>> listDirectory(
        const std::filesystem::path& path, bool skipHiddenEntries) const = 0;

    [[nodiscard]] virtual std::filesystem::path temporaryDirectory() const = 0;
};

// The process-wide file system on the real disk, built from the real environment.
[[nodiscard]] std::shared_ptr<FileSystem> defaultFileSystem();

}  // namespace quillfort
