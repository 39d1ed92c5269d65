// The Linux meaning of a process's code-identity fields, cached per
// executable file (device, inode, modification time, size):
//  - cdHash: the SHA-256 of the executable's bytes, in lower-case hex;
//  - signingID: the Debian package that owns the file, or the application id
//    of a flatpak or snap the process runs in.
// Hashing and the package search read files; they run off the packet path
// and their results are kept, so each executable costs them once.
#pragma once

#include <cstdint>
#include <filesystem>
#include <list>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>

namespace quillfort {

struct ExecutableFileKey {
    std::uint64_t device = 0;
    std::uint64_t inode = 0;
    std::int64_t modificationNs = 0;
    std::uint64_t size = 0;

    bool operator==(const ExecutableFileKey&) const = default;
};

struct ExecutableCodeIdentity {
    std::optional<std::string> cdHash;
    std::optional<std::string> signingID;

    bool operator==(const ExecutableCodeIdentity&) const = default;
};

struct ExecutableFileKeyHash {
    std::size_t operator()(const ExecutableFileKey& key) const noexcept {
        return std::hash<std::uint64_t>{}(key.inode * 1099511628211ull ^ key.device) ^
               std::hash<std::int64_t>{}(key.modificationNs);
    }
};

class ExecutableIdentities {
public:
    static constexpr std::size_t defaultCapacity = 2048;

    explicit ExecutableIdentities(std::filesystem::path dpkgInfoDirectory = "/var/lib/dpkg/info",
                                  std::size_t capacity = defaultCapacity);

    // The key of the file behind `executable` (usually /proc/PID/exe, which
    // still reaches a file that was replaced or deleted); nothing when it
    // cannot be read.
    [[nodiscard]] static std::optional<ExecutableFileKey> keyOf(const std::filesystem::path& executable);

    // What is known of that file, without reading it. Safe from any thread.
    [[nodiscard]] std::optional<ExecutableCodeIdentity> cached(const ExecutableFileKey& key) const;

    // Hashes the file at `executable`, finds the package owning
    // `executablePath` (or the sandbox application of `processRoot`, the
    // process's /proc/PID/root), keeps the result under `key` and returns it.
    // Slow: call it from a worker. Safe from any thread.
    ExecutableCodeIdentity compute(const ExecutableFileKey& key, const std::filesystem::path& executable,
                                   const std::string& executablePath,
                                   const std::optional<std::filesystem::path>& processRoot);

    // The SHA-256 of a whole file as lower-case hex; nothing when unreadable.
    [[nodiscard]] static std::optional<std::string> sha256(const std::filesystem::path& file);
    // The same digest of bytes in memory.
    [[nodiscard]] static std::optional<std::string> sha256Of(std::string_view bytes);
    // The package whose file list holds `path` (also as /bin/... for /usr/bin/...
    // on merged-/usr systems); nothing when no package owns it.
    [[nodiscard]] std::optional<std::string> owningPackage(const std::string& path) const;
    // The application id of a flatpak (its .flatpak-info) or snap (/snap/<name>/...).
    [[nodiscard]] static std::optional<std::string> sandboxApplication(
        const std::string& executablePath, const std::optional<std::filesystem::path>& processRoot);

    [[nodiscard]] std::size_t size() const;

private:
    void store(const ExecutableFileKey& key, ExecutableCodeIdentity identity);

    std::filesystem::path dpkgInfoDirectory_;
    std::size_t capacity_;
    mutable std::mutex mutex_;
    // Least recently stored at the front; lookups do not reorder (they are
    // far more frequent than stores and need only a shared view).
    std::list<ExecutableFileKey> order_;
    std::unordered_map<ExecutableFileKey, ExecutableCodeIdentity, ExecutableFileKeyHash> entries_;
};

}  // namespace quillfort
