#include "tests/testsupport/FakeFileSystem.hpp"

#include <algorithm>

#include "platform/PosixFileSystem.hpp"

namespace quillfort::testing {

FakeFileSystem::FakeFileSystem()
    // The real file system never consults the console here: the fake answers that itself.
    : real_(std::make_unique<PosixFileSystem>(ProcessInfo{}, [] { return std::optional<uid_t>{}; })) {}

FakeFileSystem::FakeFileSystem(std::filesystem::path homeDirectory) : FakeFileSystem() {
    home_ = std::move(homeDirectory);
}

std::optional<int> FakeFileSystem::enter(Operation operation, const std::filesystem::path& path,
                                         std::optional<unsigned> mode) const {
    std::lock_guard lock(mutex_);
    calls_.push_back(Call{operation, path, mode});
    const auto normal = path.lexically_normal();
    auto rule = std::find_if(rules_.begin(), rules_.end(), [&](const Rule& candidate) {
        return candidate.operation == operation && (!candidate.path || *candidate.path == normal);
    });
    if (rule == rules_.end()) return std::nullopt;
    int err = rule->err;
    if (!rule->path) rules_.erase(rule);  // a "next call" rule is used up
    return err;
}

VoidResult FakeFileSystem::createDirectories(const std::filesystem::path& path) {
    return guarded(Operation::createDirectories, path, [&] { return real_->createDirectories(path); });
}

VoidResult FakeFileSystem::setPosixPermissions(const std::filesystem::path& path, unsigned mode) {
    return guarded(Operation::setPosixPermissions, path, [&] { return real_->setPosixPermissions(path, mode); }, mode);
}

VoidResult FakeFileSystem::removeItem(const std::filesystem::path& path) {
    return guarded(Operation::removeItem, path, [&] { return real_->removeItem(path); });
}

Result<std::string> FakeFileSystem::readFile(const std::filesystem::path& path) const {
    return guarded(Operation::readFile, path, [&] { return real_->readFile(path); });
}

Result<FileIdentity> FakeFileSystem::fileIdentity(const std::filesystem::path& path) const {
    return guarded(Operation::fileIdentity, path, [&] { return real_->fileIdentity(path); });
}

VoidResult FakeFileSystem::writeFileAtomically(const std::filesystem::path& path, std::string_view bytes) {
    return guarded(Operation::writeFileAtomically, path, [&] { return real_->writeFileAtomically(path, bytes); });
}

Result<std::vector<DirectoryEntry>> FakeFileSystem::listDirectory(const std::filesystem::path& path,
                                                                  bool skipHiddenEntries) const {
    return guarded(Operation::listDirectory, path, [&]() -> Result<std::vector<DirectoryEntry>> {
        auto listing = real_->listDirectory(path, skipHiddenEntries);
        std::lock_guard lock(mutex_);
        if (!listing || listing_.empty()) return listing;
        std::vector<DirectoryEntry> chosen;
        for (const auto& [name, date] : listing_) {
            for (const auto& entry : *listing)
                if (entry.path.filename() == name) chosen.push_back({entry.path, date});
        }
        return chosen;
    });
}

}  // namespace quillfort::testing
