// The shared folder of the user the filter serves, as a root daemon must
// touch it: every operation runs with the user's own file-system identity
// (so the kernel grants root nothing the user could not do), walks the path
// one directory at a time from a descriptor without following any symbolic
// link, accepts only items the user owns, and never leaves the folder.
// Files are replaced by a temporary file and a rename in the same directory,
// and reads are bounded. It is the file system the filter's prompt client
// uses too, so a manifest or bridge path that points elsewhere is refused.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "platform/Error.hpp"
#include "platform/FileDescriptor.hpp"
#include "platform/FileSystem.hpp"

namespace quillfort {

class UserFolder final : public FileSystem {
public:
    // The largest file read: the agent's own store limit.
    static constexpr std::uint64_t maximumReadBytes = 64u * 1024u * 1024u;

    // The folder under `home` (its owner is the user served). Fails when the
    // home cannot be resolved or does not belong to an ordinary account.
    [[nodiscard]] static Result<std::shared_ptr<UserFolder>> open(const std::filesystem::path& home);

    [[nodiscard]] uid_t uid() const noexcept { return uid_; }
    [[nodiscard]] gid_t gid() const noexcept { return gid_; }
    [[nodiscard]] const std::filesystem::path& home() const noexcept { return home_; }
    // The shared folder: ~/Library/Group Containers/ and the first of its two
    // names that exists (the first name when neither does).
    [[nodiscard]] std::filesystem::path container() const;

    // Whether a running agent holds the lock file: the kernel's table of
    // file locks is read, the lock is never touched.
    [[nodiscard]] bool agentHoldsLock() const;

    // --- FileSystem ----------------------------------------------------------
    [[nodiscard]] std::optional<std::filesystem::path> currentHomeDirectory() const override { return home_; }
    [[nodiscard]] std::optional<std::filesystem::path> appGroupContainer(std::string_view) const override {
        return std::nullopt;
    }
    [[nodiscard]] std::optional<std::filesystem::path> consoleUserHomeDirectory() const override { return home_; }
    [[nodiscard]] bool exists(const std::filesystem::path& path) const override;
    [[nodiscard]] bool isDirectory(const std::filesystem::path& path) const override;
    [[nodiscard]] VoidResult createDirectories(const std::filesystem::path& path) override;
    [[nodiscard]] VoidResult setPosixPermissions(const std::filesystem::path& path, unsigned mode) override;
    [[nodiscard]] VoidResult removeItem(const std::filesystem::path& path) override;
    [[nodiscard]] Result<std::string> readFile(const std::filesystem::path& path) const override;
    [[nodiscard]] Result<FileIdentity> fileIdentity(const std::filesystem::path& path) const override;
    [[nodiscard]] VoidResult writeFileAtomically(const std::filesystem::path& path, std::string_view bytes) override;
    [[nodiscard]] VoidResult replaceFileWithoutSync(const std::filesystem::path& path, std::string_view bytes) override;
    [[nodiscard]] Result<std::vector<DirectoryEntry>> listDirectory(const std::filesystem::path& path,
                                                                    bool skipHiddenEntries) const override;
    [[nodiscard]] std::filesystem::path temporaryDirectory() const override { return container(); }

    // Runs `work` with the user's file-system identity on this thread (for
    // the few calls that take paths, such as adding an inotify watch).
    template <class Work>
    auto asUser(Work&& work) const {
        IdentitySwitch identity(uid_, gid_);
        return work();
    }

    // Switches this thread's file-system identity for its lifetime.
    class IdentitySwitch {
    public:
        IdentitySwitch(uid_t uid, gid_t gid) noexcept;
        ~IdentitySwitch();
        IdentitySwitch(const IdentitySwitch&) = delete;
        IdentitySwitch& operator=(const IdentitySwitch&) = delete;

    private:
        uid_t previousUid_;
        gid_t previousGid_;
    };

private:
    UserFolder(std::filesystem::path home, uid_t uid, gid_t gid) : home_(std::move(home)), uid_(uid), gid_(gid) {}

    struct Located {
        FileDescriptor directory;  // the parent, opened
        std::string name;          // the last component; empty for the folder itself
    };
    // Opens the parent of `path` (which must lie in the folder), creating
    // missing directories when asked. Errors: EACCES outside the folder,
    // ELOOP for a link on the way, EPERM for a directory of another owner.
    [[nodiscard]] Result<Located> locate(const std::filesystem::path& path, bool createParents) const;
    [[nodiscard]] VoidResult replace(const std::filesystem::path& path, std::string_view bytes, bool durable);

    std::filesystem::path home_;  // canonical
    uid_t uid_;
    gid_t gid_;
};

}  // namespace quillfort
