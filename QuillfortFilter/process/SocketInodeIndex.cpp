#include "QuillfortFilter/process/SocketInodeIndex.hpp"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <charconv>
#include <string>

#include "platform/FileDescriptor.hpp"

namespace quillfort {

namespace {

// At most this many sockets are remembered from one scan.
constexpr std::size_t maximumSockets = 1 << 18;

std::optional<std::int32_t> numericName(std::string_view name) {
    std::int32_t value = 0;
    auto [end, error] = std::from_chars(name.data(), name.data() + name.size(), value);
    if (error != std::errc{} || end != name.data() + name.size() || value <= 0) return std::nullopt;
    return value;
}

}  // namespace

std::optional<std::uint64_t> SocketInodeIndex::socketInode(std::string_view link) noexcept {
    constexpr std::string_view prefix = "socket:[";
    if (!link.starts_with(prefix) || !link.ends_with(']')) return std::nullopt;
    const auto digits = link.substr(prefix.size(), link.size() - prefix.size() - 1);
    std::uint64_t inode = 0;
    auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), inode);
    if (digits.empty() || error != std::errc{} || end != digits.data() + digits.size()) return std::nullopt;
    return inode;
}

std::optional<std::int32_t> SocketInodeIndex::owner(std::uint64_t inode, Clock::time_point now) {
    if (auto found = owners_.find(inode); found != owners_.end()) return found->second;
    if (lastScan_ && now - *lastScan_ < minimumScanInterval) return std::nullopt;
    lastScan_ = now;
    scan();
    if (auto found = owners_.find(inode); found != owners_.end()) return found->second;
    return std::nullopt;
}

void SocketInodeIndex::scan() {
    ++scans_;
    owners_.clear();
    FileDescriptor root(::open(procfs_.root.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!root) return;
    DIR* processes = ::fdopendir(::dup(root.get()));
    if (processes == nullptr) return;
    std::array<char, 64> link{};
    while (dirent* process = ::readdir(processes)) {
        auto pid = numericName(process->d_name);
        if (!pid) continue;
        const std::string fdDirectory = std::string(process->d_name) + "/fd";
        FileDescriptor descriptors(::openat(root.get(), fdDirectory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        if (!descriptors) continue;  // gone, or hidden from us
        DIR* table = ::fdopendir(::dup(descriptors.get()));
        if (table == nullptr) continue;
        while (dirent* descriptor = ::readdir(table)) {
            if (descriptor->d_name[0] == '.') continue;
            const ssize_t length = ::readlinkat(descriptors.get(), descriptor->d_name, link.data(), link.size());
            if (length <= 0) continue;
            if (auto inode = socketInode({link.data(), static_cast<std::size_t>(length)});
                inode && owners_.size() < maximumSockets)
                owners_.emplace(*inode, *pid);  // the first holder found names it
        }
        ::closedir(table);
    }
    ::closedir(processes);
}

}  // namespace quillfort
