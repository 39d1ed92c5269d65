#include "tests/testsupport/FakeFileSystem.hpp"

#include <algorithm>

#include "platform/PosixFileSystem.hpp"

namespace quillfort::testing {

namespace {

std::unexpected<Error> injected(int err, const std::filesystem::path& path) {
    return std::unexpected(Error::fromErrno(err, path.native()));
}

}  // namespace

FakeFileSystem::FakeFileSystem()
    // The real file system never consults the console here: the fake answers that itself.
    : real_(std::make_unique<PosixFileSystem>(ProcessInfo{}, [] { return std::optional<uid_t>{}; })) {}

FakeFileSystem::FakeFileSystem(std::filesystem::path homeDirectory) : FakeFileSystem() {
    home_ = std::move(homeDirectory);
}

void FakeFileSystem::setHomeDirectory(std::optional<std::filesystem::path> home) {
    std::lock_guard lock(mutex_);
    home_ = std::move(home);
}

void FakeFileSystem::setAppGroupContainer(std::optional<std::filesystem::path> container) {
    std::lock_guard lock(mutex_);
    appGroupContainer_ = std::move(container);
}

void FakeFileSystem::setConsoleUserHomeDirectory(std::optional<std::filesystem::path> home) {
    std::lock_guard lock(mutex_);
    consoleHome_ = std::move(home);
}

void FakeFileSystem::setTemporaryDirectory(std::filesystem::path directory) {
    std::lock_guard lock(mutex_);
    temporaryDirectory_ = std::move(directory);
}

void FakeFileSystem::failNext(Operation operation, int err) {
    std::lock_guard lock(mutex_);
    rules_.push_back(Rule{operation, std::nullopt, err});
}

void FakeFileSystem::failOn(Operation operation, const std::filesystem::path& path, int err) {
    std::lock_guard lock(mutex_);
    rules_.push_back(Rule{operation, path.lexically_normal(), err});
}

void FakeFileSystem::clearFailures() {
    std::lock_guard lock(mutex_);
    rules_.clear();
}

std::vector<FakeFileSystem::Call> FakeFileSystem::calls() const {
    std::lock_guard lock(mutex_);
    return calls_;
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

std::optional<std::filesystem::path> FakeFileSystem::currentHomeDirectory() const {
    std::lock_guard lock(mutex_);
    return home_;
}

std::optional<std::filesystem::path> FakeFileSystem::appGroupContainer(std::string_view) const {
    std::lock_guard lock(mutex_);
    return appGroupContainer_;
}

std::optional<std::filesystem::path> FakeFileSystem::consoleUserHomeDirectory() const {
    std::lock_guard lock(mutex_);
    return consoleHome_;
}

bool FakeFileSystem::exists(const std::filesystem::path& path) const { return real_->exists(path); }

bool FakeFileSystem::isDirectory(const std::filesystem::path& path) const {
    return real_->isDirectory(path);
}

VoidResult FakeFileSystem::createDirectories(const std::filesystem::path& path) {
    if (auto err = enter(Operation::createDirectories, path)) return injected(*err, path);
    return real_->createDirectories(path);
}

VoidResult FakeFileSystem::setPosixPermissions(const std::filesystem::path& path, unsigned mode) {
    if (auto err = enter(Operation::setPosixPermissions, path, mode)) return injected(*err, path);
    return real_->setPosixPermissions(path, mode);
}

VoidResult FakeFileSystem::removeItem(const std::filesystem::path& path) {
    if (auto err = enter(Operation::removeItem, path)) return injected(*err, path);
    return real_->removeItem(path);
}

Result<std::string> FakeFileSystem::readFile(const std::filesystem::path& path) const {
    if (auto err = enter(Operation::readFile, path)) return injected(*err, path);
    return real_->readFile(path);
}

Result<FileIdentity> FakeFileSystem::fileIdentity(const std::filesystem::path& path) const {
    if (auto err = enter(Operation::fileIdentity, path)) return injected(*err, path);
    return real_->fileIdentity(path);
}

VoidResult FakeFileSystem::writeFileAtomically(const std::filesystem::path& path, std::string_view bytes) {
    if (auto err = enter(Operation::writeFileAtomically, path)) return injected(*err, path);
    return real_->writeFileAtomically(path, bytes);
}

Result<std::vector<DirectoryEntry>> FakeFileSystem::listDirectory(const std::filesystem::path& path,
                                                                  bool skipHiddenEntries) const {
    if (auto err = enter(Operation::listDirectory, path)) return injected(*err, path);
    auto listing = real_->listDirectory(path, skipHiddenEntries);
    std::lock_guard lock(mutex_);
    if (!listing || listing_.empty()) return listing;
    std::vector<DirectoryEntry> chosen;
    for (const auto& [name, date] : listing_) {
        for (const auto& entry : *listing)
            if (entry.path.filename() == name) chosen.push_back({entry.path, date});
    }
    return chosen;
}

void FakeFileSystem::chooseListing(std::vector<std::pair<std::string, std::optional<std::chrono::system_clock::time_point>>> listing) {
    std::lock_guard lock(mutex_);
    listing_ = std::move(listing);
}

std::filesystem::path FakeFileSystem::temporaryDirectory() const {
    std::lock_guard lock(mutex_);
    return temporaryDirectory_;
}

}  // namespace quillfort::testing
