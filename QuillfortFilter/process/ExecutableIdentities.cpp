#include "QuillfortFilter/process/ExecutableIdentities.hpp"

#include <fcntl.h>
#include <openssl/evp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <vector>
#include <fstream>
#include <memory>
#include <string_view>

#include <fmt/format.h>

#include "platform/FileDescriptor.hpp"

namespace quillfort {

namespace {

// A .flatpak-info larger than this is not one.
constexpr std::size_t maximumFlatpakInfo = 64 * 1024;

bool listHoldsLine(const std::filesystem::path& list, const std::string& wanted) {
    std::ifstream stream(list);
    for (std::string line; std::getline(stream, line);)
        if (line == wanted) return true;
    return false;
}

}  // namespace

ExecutableIdentities::ExecutableIdentities(std::filesystem::path dpkgInfoDirectory, std::size_t capacity)
    : dpkgInfoDirectory_(std::move(dpkgInfoDirectory)), capacity_(std::max<std::size_t>(capacity, 1)) {}

std::optional<ExecutableFileKey> ExecutableIdentities::keyOf(const std::filesystem::path& executable) {
    struct stat status {};
    if (::stat(executable.c_str(), &status) != 0 || !S_ISREG(status.st_mode)) return std::nullopt;
    return ExecutableFileKey{static_cast<std::uint64_t>(status.st_dev), static_cast<std::uint64_t>(status.st_ino),
                             static_cast<std::int64_t>(status.st_mtim.tv_sec) * 1'000'000'000 + status.st_mtim.tv_nsec,
                             static_cast<std::uint64_t>(status.st_size)};
}

std::optional<ExecutableCodeIdentity> ExecutableIdentities::cached(const ExecutableFileKey& key) const {
    std::lock_guard lock(mutex_);
    auto found = entries_.find(key);
    if (found == entries_.end()) return std::nullopt;
    return found->second;
}

ExecutableCodeIdentity ExecutableIdentities::compute(const ExecutableFileKey& key,
                                                     const std::filesystem::path& executable,
                                                     const std::string& executablePath,
                                                     const std::optional<std::filesystem::path>& processRoot) {
    if (auto known = cached(key)) return *known;
    ExecutableCodeIdentity identity;
    identity.cdHash = sha256(executable);
    identity.signingID = sandboxApplication(executablePath, processRoot);
    if (!identity.signingID) identity.signingID = owningPackage(executablePath);
    store(key, identity);
    return identity;
}

void ExecutableIdentities::store(const ExecutableFileKey& key, ExecutableCodeIdentity identity) {
    std::lock_guard lock(mutex_);
    if (entries_.contains(key)) return;
    while (entries_.size() >= capacity_ && !order_.empty()) {
        entries_.erase(order_.front());
        order_.pop_front();
    }
    entries_.emplace(key, std::move(identity));
    order_.push_back(key);
}

std::size_t ExecutableIdentities::size() const {
    std::lock_guard lock(mutex_);
    return entries_.size();
}

std::optional<std::string> ExecutableIdentities::sha256(const std::filesystem::path& file) {
    FileDescriptor fd(::open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    struct stat status {};
    if (!fd || ::fstat(fd.get(), &status) != 0 || !S_ISREG(status.st_mode)) return std::nullopt;
    std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> context(EVP_MD_CTX_new(), EVP_MD_CTX_free);
    if (!context || EVP_DigestInit_ex(context.get(), EVP_sha256(), nullptr) != 1) return std::nullopt;
    std::array<unsigned char, 64 * 1024> buffer{};
    for (;;) {
        const ssize_t count = ::read(fd.get(), buffer.data(), buffer.size());
        if (count < 0) {
            if (errno == EINTR) continue;
            return std::nullopt;
        }
        if (count == 0) break;
        if (EVP_DigestUpdate(context.get(), buffer.data(), static_cast<std::size_t>(count)) != 1) return std::nullopt;
    }
    std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
    unsigned int length = 0;
    if (EVP_DigestFinal_ex(context.get(), digest.data(), &length) != 1) return std::nullopt;
    std::string hex;
    hex.reserve(length * 2);
    for (unsigned int i = 0; i < length; ++i) hex += fmt::format("{:02x}", digest[i]);
    return hex;
}

std::optional<std::string> ExecutableIdentities::sha256Of(std::string_view bytes) {
    std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
    unsigned int length = 0;
    if (EVP_Digest(bytes.data(), bytes.size(), digest.data(), &length, EVP_sha256(), nullptr) != 1) return std::nullopt;
    std::string hex;
    hex.reserve(length * 2);
    for (unsigned int i = 0; i < length; ++i) hex += fmt::format("{:02x}", digest[i]);
    return hex;
}

std::optional<std::string> ExecutableIdentities::owningPackage(const std::string& path) const {
    if (path.empty() || path.front() != '/') return std::nullopt;
    std::vector<std::string> candidates{path};
    // Merged /usr: packages may still list /bin/..., /sbin/... or /lib/....
    for (std::string_view merged : {"/usr/bin/", "/usr/sbin/", "/usr/lib/"})
        if (path.starts_with(merged)) candidates.push_back(path.substr(4));
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator(dpkgInfoDirectory_, error)) {
        const auto& list = entry.path();
        if (list.extension() != ".list") continue;
        for (const auto& candidate : candidates) {
            if (!listHoldsLine(list, candidate)) continue;
            // "libfoo:amd64.list" names the package "libfoo".
            std::string package = list.stem().string();
            if (auto colon = package.find(':'); colon != std::string::npos) package.resize(colon);
            return package;
        }
    }
    return std::nullopt;
}

std::optional<std::string> ExecutableIdentities::sandboxApplication(
    const std::string& executablePath, const std::optional<std::filesystem::path>& processRoot) {
    constexpr std::string_view snapPrefix = "/snap/";
    if (executablePath.starts_with(snapPrefix)) {
        const auto end = executablePath.find('/', snapPrefix.size());
        if (end != std::string::npos && end > snapPrefix.size())
            return executablePath.substr(snapPrefix.size(), end - snapPrefix.size());
    }
    if (!processRoot) return std::nullopt;
    // Never follow a link the sandbox planted; the file is small text.
    FileDescriptor fd(::open((*processRoot / ".flatpak-info").c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
    struct stat status {};
    if (!fd || ::fstat(fd.get(), &status) != 0 || !S_ISREG(status.st_mode) ||
        static_cast<std::size_t>(status.st_size) > maximumFlatpakInfo)
        return std::nullopt;
    std::string content(static_cast<std::size_t>(status.st_size), '\0');
    const ssize_t count = ::read(fd.get(), content.data(), content.size());
    if (count <= 0) return std::nullopt;
    content.resize(static_cast<std::size_t>(count));
    bool inApplication = false;
    std::size_t start = 0;
    while (start < content.size()) {
        auto end = content.find('\n', start);
        if (end == std::string::npos) end = content.size();
        std::string_view line(content.data() + start, end - start);
        start = end + 1;
        if (line.starts_with('[')) {
            inApplication = line == "[Application]";
        } else if (inApplication && line.starts_with("name=") && line.size() > 5) {
            return std::string(line.substr(5));
        }
    }
    return std::nullopt;
}

}  // namespace quillfort
