#include "platform/PosixFileSystem.hpp"

#include <array>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <utility>

#include <dirent.h>
#include <fcntl.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/FileDescriptor.hpp"
#include "platform/LoginSessions.hpp"
#include "platform/UserDatabase.hpp"

namespace quillfort {

namespace {

std::optional<std::filesystem::path> nonEmptyVariable(const ProcessInfo& processInfo,
                                                      const std::string& name) {
    auto value = processInfo.environmentValue(name);
    if (!value || value->empty()) return std::nullopt;
    return std::filesystem::path(*value);
}

std::unexpected<Error> failure(int err, const std::filesystem::path& path) {
    return std::unexpected(Error::fromErrno(err, path.native()));
}

class DirectoryStream {
public:
    explicit DirectoryStream(DIR* dir) noexcept : dir_(dir) {}
    DirectoryStream(const DirectoryStream&) = delete;
    DirectoryStream& operator=(const DirectoryStream&) = delete;
    ~DirectoryStream() {
        if (dir_ != nullptr) ::closedir(dir_);
    }
    [[nodiscard]] DIR* get() const noexcept { return dir_; }

private:
    DIR* dir_;
};

int writeAll(int fd, std::string_view bytes) {
    while (!bytes.empty()) {
        ssize_t written = ::write(fd, bytes.data(), bytes.size());
        if (written < 0) {
            if (errno == EINTR) continue;
            return errno;
        }
        bytes.remove_prefix(static_cast<std::size_t>(written));
    }
    return 0;
}

// Random letters for temporary names. O_EXCL settles any collision, so a weak
// fallback is enough when the kernel cannot supply randomness.
std::string randomSuffix() {
    static constexpr std::string_view alphabet =
        "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789";
    std::array<unsigned char, 10> noise{};
    if (::getrandom(noise.data(), noise.size(), GRND_NONBLOCK) != static_cast<ssize_t>(noise.size())) {
        static std::atomic<unsigned long> counter{0};
        unsigned long seed = counter.fetch_add(1) * 2654435761UL ^ static_cast<unsigned long>(::getpid());
        for (auto& byte : noise) {
            seed = seed * 6364136223846793005UL + 1442695040888963407UL;
            byte = static_cast<unsigned char>(seed >> 56);
        }
    }
    std::string suffix;
    for (unsigned char byte : noise) suffix.push_back(alphabet[byte % alphabet.size()]);
    return suffix;
}

std::chrono::system_clock::time_point toTimePoint(const struct statx_timestamp& stamp) {
    auto sinceEpoch = std::chrono::seconds(stamp.tv_sec) + std::chrono::nanoseconds(stamp.tv_nsec);
    return std::chrono::system_clock::time_point(
        std::chrono::duration_cast<std::chrono::system_clock::duration>(sinceEpoch));
}

std::optional<std::chrono::system_clock::time_point> creationDate(int directoryFd, const char* name) {
    struct statx info{};
    if (::statx(directoryFd, name, AT_SYMLINK_NOFOLLOW | AT_STATX_SYNC_AS_STAT,
                STATX_BTIME | STATX_MTIME, &info) != 0) {
        return std::nullopt;
    }
    if ((info.stx_mask & STATX_BTIME) != 0) return toTimePoint(info.stx_btime);
    if ((info.stx_mask & STATX_MTIME) != 0) return toTimePoint(info.stx_mtime);
    return std::nullopt;
}

}  // namespace

PosixFileSystem::PosixFileSystem(const ProcessInfo& processInfo, ConsoleUserQuery consoleUser)
    : homeFromEnvironment_(nonEmptyVariable(processInfo, "HOME")),
      temporaryFromEnvironment_(nonEmptyVariable(processInfo, "TMPDIR")),
      consoleUser_(consoleUser ? std::move(consoleUser) : ConsoleUserQuery(LoginSessions::activeConsoleUser)) {}

std::optional<std::filesystem::path> PosixFileSystem::currentHomeDirectory() const {
    if (homeFromEnvironment_) return homeFromEnvironment_;
    return UserDatabase::homeDirectory(::geteuid());
}

std::optional<std::filesystem::path> PosixFileSystem::appGroupContainer(std::string_view) const {
    return std::nullopt;
}

std::optional<std::filesystem::path> PosixFileSystem::consoleUserHomeDirectory() const {
    auto uid = consoleUser_();
    if (!uid) return std::nullopt;
    return UserDatabase::homeDirectory(*uid);
}

bool PosixFileSystem::exists(const std::filesystem::path& path) const {
    struct stat info{};
    return ::stat(path.c_str(), &info) == 0;
}

bool PosixFileSystem::isDirectory(const std::filesystem::path& path) const {
    struct stat info{};
    return ::stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

VoidResult PosixFileSystem::createDirectories(const std::filesystem::path& path) {
    if (path.empty()) return failure(ENOENT, path);
    // mkdir first and climb only on ENOENT: cheap when the parents exist, and
    // a directory that another process creates meanwhile is no error.
    auto makeOne = [&]() -> int {
        if (::mkdir(path.c_str(), 0777) == 0) return 0;
        int err = errno;
        if (err == EEXIST && isDirectory(path)) return 0;
        return err;
    };
    int err = makeOne();
    if (err == ENOENT) {
        auto parent = path.parent_path();
        if (parent.empty() || parent == path) return failure(ENOENT, path);
        if (auto made = createDirectories(parent); !made) return made;
        err = makeOne();
    }
    if (err != 0) return failure(err, path);
    return {};
}

VoidResult PosixFileSystem::setPosixPermissions(const std::filesystem::path& path, unsigned mode) {
    if (::chmod(path.c_str(), static_cast<mode_t>(mode & 07777)) != 0) return failure(errno, path);
    return {};
}

VoidResult PosixFileSystem::removeItem(const std::filesystem::path& path) {
    struct stat info{};
    if (::lstat(path.c_str(), &info) != 0) return failure(errno, path);
    if (!S_ISDIR(info.st_mode)) {
        // A symbolic link is removed itself, never what it points to.
        if (::unlink(path.c_str()) != 0) return failure(errno, path);
        return {};
    }
    std::error_code error;
    std::filesystem::remove_all(path, error);
    if (error) return failure(error.value(), path);
    return {};
}

Result<std::string> PosixFileSystem::readFile(const std::filesystem::path& path) const {
    // O_NONBLOCK keeps a FIFO planted at the path from blocking the caller, and
    // only regular files are read: a device such as /dev/zero never ends.
    FileDescriptor fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (fd.get() < 0) return failure(errno, path);
    struct stat info{};
    if (::fstat(fd.get(), &info) != 0) return failure(errno, path);
    if (S_ISDIR(info.st_mode)) return failure(EISDIR, path);
    if (!S_ISREG(info.st_mode)) return failure(EINVAL, path);

    std::string contents;
    if (info.st_size > 0) contents.reserve(static_cast<std::size_t>(info.st_size));
    std::array<char, 64 * 1024> chunk{};
    while (true) {
        ssize_t got = ::read(fd.get(), chunk.data(), chunk.size());
        if (got < 0) {
            if (errno == EINTR) continue;
            return failure(errno, path);
        }
        if (got == 0) break;
        contents.append(chunk.data(), static_cast<std::size_t>(got));
    }
    return contents;
}

Result<FileIdentity> PosixFileSystem::fileIdentity(const std::filesystem::path& path) const {
    struct stat info{};
    if (::stat(path.c_str(), &info) != 0) return failure(errno, path);
    using namespace std::chrono;
    const auto modified = sys_seconds(seconds(info.st_mtim.tv_sec)) + nanoseconds(info.st_mtim.tv_nsec);
    return FileIdentity{
        .device = static_cast<std::uint64_t>(info.st_dev),
        .inode = static_cast<std::uint64_t>(info.st_ino),
        .size = static_cast<std::uint64_t>(info.st_size),
        .modificationTime = modified,
    };
}

VoidResult PosixFileSystem::writeFileAtomically(const std::filesystem::path& path,
                                                std::string_view bytes) {
    return replaceFile(path, bytes, /*durable=*/true);
}

VoidResult PosixFileSystem::replaceFileWithoutSync(const std::filesystem::path& path,
                                                   std::string_view bytes) {
    return replaceFile(path, bytes, /*durable=*/false);
}

VoidResult PosixFileSystem::replaceFile(const std::filesystem::path& path, std::string_view bytes, bool durable) {
    const std::string name = path.filename().native();
    if (name.empty() || name == "." || name == "..") return failure(EISDIR, path);
    const auto directory = path.parent_path().empty() ? std::filesystem::path(".") : path.parent_path();

    // The temporary lives beside the target so the rename stays on one file
    // system. Its name is hidden (directory listings skip it) and shortened so
    // it fits NAME_MAX even for long target names.
    std::string stem(1, '.');
    stem.append(name, 0, 200);
    stem.push_back('.');
    std::filesystem::path temporary;
    int fdNumber = -1;
    for (int attempt = 0; attempt < 100 && fdNumber < 0; ++attempt) {
        temporary = directory / (stem + randomSuffix());
        // 0644 through open, not mkstemp's 0600, so the umask applies as for
        // any new file.
        fdNumber = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
        if (fdNumber < 0 && errno != EEXIST) return failure(errno, path);
    }
    if (fdNumber < 0) return failure(EEXIST, path);
    FileDescriptor fd(fdNumber);

    auto abandon = [&](int err) {
        ::unlink(temporary.c_str());
        return failure(err, path);
    };
    if (int err = writeAll(fd.get(), bytes); err != 0) return abandon(err);
    if (durable && ::fsync(fd.get()) != 0) return abandon(errno);
    if (int err = fd.close(); err != 0) return abandon(err);
    if (::rename(temporary.c_str(), path.c_str()) != 0) return abandon(errno);
    if (!durable) return {};

    // Make the rename itself durable. The new content is in place whatever
    // this says, so its failure is not reported.
    FileDescriptor directoryFd(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (directoryFd.get() >= 0) ::fsync(directoryFd.get());
    return {};
}

Result<std::vector<DirectoryEntry>> PosixFileSystem::listDirectory(const std::filesystem::path& path,
                                                                   bool skipHiddenEntries) const {
    DirectoryStream stream(::opendir(path.c_str()));
    if (stream.get() == nullptr) return failure(errno, path);
    const int directoryFd = ::dirfd(stream.get());

    std::vector<DirectoryEntry> entries;
    while (true) {
        errno = 0;
        const dirent* entry = ::readdir(stream.get());
        if (entry == nullptr) {
            if (errno != 0) return failure(errno, path);
            break;
        }
        std::string_view entryName(entry->d_name);
        if (entryName == "." || entryName == "..") continue;
        if (skipHiddenEntries && entryName.starts_with('.')) continue;
        entries.push_back(DirectoryEntry{path / entryName, creationDate(directoryFd, entry->d_name)});
    }
    return entries;
}

std::filesystem::path PosixFileSystem::temporaryDirectory() const {
    return temporaryFromEnvironment_.value_or(std::filesystem::path("/tmp"));
}

}  // namespace quillfort
