#include "QuillfortAgent/app/QuillfortAgentSingleInstanceGuard.hpp"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <string>

#include "contracts/QuillfortPromptEndpointStore.hpp"
#include "contracts/QuillfortSharedContainer.hpp"

namespace quillfort {

std::filesystem::path QuillfortAgentSingleInstanceGuard::lockFileURL(
    const FileSystem& fileSystem, const std::optional<std::filesystem::path>& homeDirectory) {
    if (auto container = QuillfortSharedContainer::containerURL(fileSystem, homeDirectory)) {
        return *container / QuillfortPromptEndpointStore::bridgeSessionsDirectoryName / lockFileName;
    }
    return fileSystem.temporaryDirectory() / lockFileName;
}

QuillfortAgentSingleInstanceGuard::QuillfortAgentSingleInstanceGuard(
    FileSystem& fileSystem, const std::optional<std::filesystem::path>& homeDirectory, int processIdentifier) {
    const auto lockFile = lockFileURL(fileSystem, homeDirectory);
    if (!fileSystem.createDirectories(lockFile.parent_path())) return;

    const int descriptor = ::open(lockFile.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    if (descriptor < 0) return;
    fileDescriptor_ = descriptor;

    if (::flock(descriptor, LOCK_EX | LOCK_NB) != 0) {
        // Held elsewhere. The descriptor stays open until the guard goes, and
        // the running agent's file is not touched.
        shouldActivateCurrentInstance_ = false;
        return;
    }
    // Truncate, then write, each whatever the other did: the identifier is only
    // informative for people looking at the file, and a lock file that cannot be
    // truncated (a FIFO, a device) still gets it. The descriptor was just opened,
    // so its offset is 0; pwrite would fail on anything that cannot seek.
    (void)::ftruncate(descriptor, 0);
    const std::string content = std::to_string(processIdentifier) + "\n";
    [[maybe_unused]] const auto written = ::write(descriptor, content.data(), content.size());
}

QuillfortAgentSingleInstanceGuard::~QuillfortAgentSingleInstanceGuard() {
    if (fileDescriptor_ >= 0) {
        ::flock(fileDescriptor_, LOCK_UN);
        ::close(fileDescriptor_);
    }
}

}  // namespace quillfort
