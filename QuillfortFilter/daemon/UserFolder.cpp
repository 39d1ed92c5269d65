#include "QuillfortFilter/daemon/UserFolder.hpp"

#include <dirent.h>
#include <fcntl.h>
#include <sys/fsuid.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <fstream>
#include <random>
#include <sstream>

#include <fmt/format.h>

#include "contracts/QuillfortPromptEndpointStore.hpp"
#include "contracts/QuillfortSharedContainer.hpp"

namespace quillfort {

namespace {

constexpr std::string_view lockFileName = "QuillfortAgent.lock";

std::unexpected<Error> failure(int err, const std::filesystem::path& path) {
    return std::unexpected(Error::fromErrno(err, path.native()));
}

std::unexpected<Error> refused(int err, const std::filesystem::path& path, std::string_view why) {
    return std::unexpected(Error{std::error_code(err, std::generic_category()),
                                 fmt::format("{}: {}", why, path.native())});
}

std::filesystem::path groupContainersOf(const std::filesystem::path& home) {
    return home / "Library" / "Group Containers";
}

std::string temporaryName(std::string_view name) {
    static thread_local std::mt19937_64 generator{std::random_device{}()};
    return fmt::format(".{}.{:016x}.tmp", name, generator());
}

}  // namespace

UserFolder::IdentitySwitch::IdentitySwitch(uid_t uid, gid_t gid) noexcept
    : previousUid_(static_cast<uid_t>(::setfsuid(static_cast<uid_t>(-1)))),
      previousGid_(static_cast<gid_t>(::setfsgid(static_cast<gid_t>(-1)))) {
    // Group first: once the user identity is in force, the right to change
    // the group may be gone.
    ::setfsgid(gid);
    ::setfsuid(uid);
}

UserFolder::IdentitySwitch::~IdentitySwitch() {
    ::setfsuid(previousUid_);
    ::setfsgid(previousGid_);
}

Result<std::shared_ptr<UserFolder>> UserFolder::open(const std::filesystem::path& home) {
    std::error_code error;
    auto canonical = std::filesystem::canonical(home, error);
    if (error) return std::unexpected(Error::fromErrno(error.value(), home.native()));
    struct stat status {};
    if (::stat(canonical.c_str(), &status) != 0) return failure(errno, canonical);
    if (!S_ISDIR(status.st_mode)) return refused(ENOTDIR, canonical, "The home to serve is not a directory");
    return std::shared_ptr<UserFolder>(new UserFolder(canonical, status.st_uid, status.st_gid));
}

std::filesystem::path UserFolder::container() const {
    const auto base = groupContainersOf(home_);
    for (auto name : QuillfortPromptEndpointStore::fallbackPromptBridgeDirectoryNames())
        if (isDirectory(base / name)) return base / name;
    return base / QuillfortSharedContainer::appGroupIdentifier;
}

Result<UserFolder::Located> UserFolder::locate(const std::filesystem::path& path, bool createParents) const {
    const auto normal = path.lexically_normal();
    const auto root = groupContainersOf(home_);
    const auto inRoot = normal.lexically_relative(root);
    if (!normal.is_absolute() || inRoot.empty() || *inRoot.begin() == ".." || normal != path)
        return refused(EACCES, path, "Outside the shared folder");

    IdentitySwitch identity(uid_, gid_);
    FileDescriptor directory(::open(home_.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!directory) return failure(errno, home_);
    struct stat status {};
    if (::fstat(directory.get(), &status) != 0 || status.st_uid != uid_)
        return refused(EPERM, home_, "The home changed owner");

    std::vector<std::string> components;
    for (const auto& component : normal.lexically_relative(home_)) components.push_back(component.string());
    if (components.empty()) return refused(EACCES, path, "Outside the shared folder");
    std::filesystem::path walked = home_;
    for (std::size_t index = 0; index + 1 < components.size(); ++index) {
        const std::string& component = components[index];
        walked /= component;
        int next = ::openat(directory.get(), component.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
        if (next < 0 && errno == ENOENT && createParents) {
            // Folders above the shared one stay private to the user.
            if (::mkdirat(directory.get(), component.c_str(), 0700) != 0 && errno != EEXIST)
                return failure(errno, walked);
            next = ::openat(directory.get(), component.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
        }
        if (next < 0) return failure(errno, walked);
        directory.reset(next);
        if (::fstat(directory.get(), &status) != 0) return failure(errno, walked);
        if (status.st_uid != uid_) return refused(EPERM, walked, "Not owned by the user served");
    }
    return Located{std::move(directory), components.back()};
}

bool UserFolder::exists(const std::filesystem::path& path) const {
    auto located = locate(path, false);
    if (!located) return false;
    IdentitySwitch identity(uid_, gid_);
    struct stat status {};
    return ::fstatat(located->directory.get(), located->name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0;
}

bool UserFolder::isDirectory(const std::filesystem::path& path) const {
    auto located = locate(path, false);
    if (!located) return false;
    IdentitySwitch identity(uid_, gid_);
    struct stat status {};
    return ::fstatat(located->directory.get(), located->name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0 &&
           S_ISDIR(status.st_mode) && status.st_uid == uid_;
}

VoidResult UserFolder::createDirectories(const std::filesystem::path& path) {
    auto located = locate(path, true);
    if (!located) return std::unexpected(located.error());
    IdentitySwitch identity(uid_, gid_);
    if (::mkdirat(located->directory.get(), located->name.c_str(), 0700) != 0 && errno != EEXIST)
        return failure(errno, path);
    struct stat status {};
    if (::fstatat(located->directory.get(), located->name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0)
        return failure(errno, path);
    if (!S_ISDIR(status.st_mode)) return failure(ENOTDIR, path);
    return {};
}

VoidResult UserFolder::setPosixPermissions(const std::filesystem::path& path, unsigned mode) {
    auto located = locate(path, false);
    if (!located) return std::unexpected(located.error());
    IdentitySwitch identity(uid_, gid_);
    // Opened without following a link, and without blocking on a FIFO.
    FileDescriptor item(
        ::openat(located->directory.get(), located->name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (!item) return failure(errno, path);
    if (::fchmod(item.get(), mode) != 0) return failure(errno, path);
    return {};
}

VoidResult UserFolder::removeItem(const std::filesystem::path& path) {
    auto located = locate(path, false);
    if (!located) return std::unexpected(located.error());
    IdentitySwitch identity(uid_, gid_);
    if (::unlinkat(located->directory.get(), located->name.c_str(), 0) == 0) return {};
    if (errno != EISDIR) return failure(errno, path);
    // A directory: empty it first, one level at a time, never following links.
    FileDescriptor inner(
        ::openat(located->directory.get(), located->name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!inner) return failure(errno, path);
    DIR* stream = ::fdopendir(::dup(inner.get()));
    if (stream == nullptr) return failure(errno, path);
    std::vector<std::string> names;
    while (dirent* entry = ::readdir(stream)) {
        std::string_view name(entry->d_name);
        if (name != "." && name != "..") names.emplace_back(name);
    }
    ::closedir(stream);
    for (const auto& name : names)
        if (auto removed = removeItem(path / name); !removed) return removed;
    if (::unlinkat(located->directory.get(), located->name.c_str(), AT_REMOVEDIR) != 0) return failure(errno, path);
    return {};
}

Result<std::string> UserFolder::readFile(const std::filesystem::path& path) const {
    auto located = locate(path, false);
    if (!located) return std::unexpected(located.error());
    IdentitySwitch identity(uid_, gid_);
    FileDescriptor file(
        ::openat(located->directory.get(), located->name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (!file) return failure(errno, path);
    struct stat status {};
    if (::fstat(file.get(), &status) != 0) return failure(errno, path);
    if (!S_ISREG(status.st_mode)) return refused(EINVAL, path, "Not a regular file");
    if (status.st_uid != uid_) return refused(EPERM, path, "Not owned by the user served");
    if (static_cast<std::uint64_t>(status.st_size) > maximumReadBytes)
        return refused(EFBIG, path, fmt::format("Larger than the {} bytes read", maximumReadBytes));
    std::string content;
    std::array<char, 64 * 1024> buffer{};
    for (;;) {
        const ssize_t count = ::read(file.get(), buffer.data(), buffer.size());
        if (count < 0) {
            if (errno == EINTR) continue;
            return failure(errno, path);
        }
        if (count == 0) break;
        content.append(buffer.data(), static_cast<std::size_t>(count));
        // The file may grow while it is read.
        if (content.size() > maximumReadBytes)
            return refused(EFBIG, path, fmt::format("Larger than the {} bytes read", maximumReadBytes));
    }
    return content;
}

Result<FileIdentity> UserFolder::fileIdentity(const std::filesystem::path& path) const {
    auto located = locate(path, false);
    if (!located) return std::unexpected(located.error());
    IdentitySwitch identity(uid_, gid_);
    struct stat status {};
    if (::fstatat(located->directory.get(), located->name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0)
        return failure(errno, path);
    return FileIdentity{static_cast<std::uint64_t>(status.st_dev), static_cast<std::uint64_t>(status.st_ino),
                        static_cast<std::uint64_t>(status.st_size),
                        std::chrono::sys_time<std::chrono::nanoseconds>(
                            std::chrono::seconds(status.st_mtim.tv_sec) + std::chrono::nanoseconds(status.st_mtim.tv_nsec))};
}

VoidResult UserFolder::replace(const std::filesystem::path& path, std::string_view bytes, bool durable) {
    auto located = locate(path, false);
    if (!located) return std::unexpected(located.error());
    IdentitySwitch identity(uid_, gid_);
    const std::string temporary = temporaryName(located->name);
    // A new file of the user's, made where no link can stand in for it.
    FileDescriptor file(::openat(located->directory.get(), temporary.c_str(),
                                 O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (!file) return failure(errno, path);
    auto abandon = [&](int err) {
        ::unlinkat(located->directory.get(), temporary.c_str(), 0);
        return failure(err, path);
    };
    std::size_t written = 0;
    while (written < bytes.size()) {
        const ssize_t count = ::write(file.get(), bytes.data() + written, bytes.size() - written);
        if (count < 0) {
            if (errno == EINTR) continue;
            return abandon(errno);
        }
        written += static_cast<std::size_t>(count);
    }
    if (durable && ::fsync(file.get()) != 0) return abandon(errno);
    if (int err = file.close(); err != 0) return abandon(err);
    if (::renameat(located->directory.get(), temporary.c_str(), located->directory.get(), located->name.c_str()) != 0)
        return abandon(errno);
    return {};
}

VoidResult UserFolder::writeFileAtomically(const std::filesystem::path& path, std::string_view bytes) {
    return replace(path, bytes, true);
}

VoidResult UserFolder::replaceFileWithoutSync(const std::filesystem::path& path, std::string_view bytes) {
    return replace(path, bytes, false);
}

Result<std::vector<DirectoryEntry>> UserFolder::listDirectory(const std::filesystem::path& path,
                                                              bool skipHiddenEntries) const {
    auto located = locate(path, false);
    if (!located) return std::unexpected(located.error());
    IdentitySwitch identity(uid_, gid_);
    FileDescriptor inner(
        ::openat(located->directory.get(), located->name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!inner) return failure(errno, path);
    DIR* stream = ::fdopendir(::dup(inner.get()));
    if (stream == nullptr) return failure(errno, path);
    std::vector<DirectoryEntry> entries;
    while (dirent* entry = ::readdir(stream)) {
        std::string_view name(entry->d_name);
        if (name == "." || name == ".." || (skipHiddenEntries && name.starts_with('.'))) continue;
        struct stat status {};
        std::optional<std::chrono::system_clock::time_point> created;
        if (::fstatat(inner.get(), entry->d_name, &status, AT_SYMLINK_NOFOLLOW) == 0)
            created = std::chrono::system_clock::time_point(std::chrono::duration_cast<std::chrono::system_clock::duration>(
                std::chrono::seconds(status.st_mtim.tv_sec) + std::chrono::nanoseconds(status.st_mtim.tv_nsec)));
        entries.push_back(DirectoryEntry{path / std::string(name), created});
    }
    ::closedir(stream);
    return entries;
}

bool UserFolder::agentHoldsLock() const {
    const auto lockFile = container() / QuillfortPromptEndpointStore::bridgeSessionsDirectoryName / lockFileName;
    auto located = locate(lockFile, false);
    if (!located) return false;
    struct stat status {};
    {
        IdentitySwitch identity(uid_, gid_);
        if (::fstatat(located->directory.get(), located->name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0 ||
            !S_ISREG(status.st_mode))
            return false;
    }
    // "1: FLOCK  ADVISORY  WRITE 4183 fd:01:2886746 0 EOF"; waiters carry "->".
    const std::string wanted = fmt::format("{:02x}:{:02x}:{}", major(status.st_dev), minor(status.st_dev), status.st_ino);
    std::ifstream locks("/proc/locks");
    for (std::string line; std::getline(locks, line);) {
        if (line.find("->") != std::string::npos || line.find(" FLOCK ") == std::string::npos) continue;
        std::istringstream fields(line);
        std::string field;
        for (int index = 0; index < 6 && fields >> field; ++index)
            if (index == 5 && field == wanted) return true;
    }
    return false;
}

}  // namespace quillfort
