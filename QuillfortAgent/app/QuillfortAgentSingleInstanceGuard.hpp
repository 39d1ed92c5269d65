// Keeps a second copy of the agent from running in the same user session: an
// exclusive advisory lock on "QuillfortAgent.lock", held while the guard lives.
#pragma once

#include <filesystem>
#include <optional>
#include <string_view>

#include "contracts/QuillfortSharedContainer.hpp"
#include "platform/FileSystem.hpp"

namespace quillfort {

class QuillfortAgentSingleInstanceGuard {
public:
    static constexpr std::string_view lockFileName = QuillfortSharedContainer::agentLockFilename;

    // Takes the lock at once. Fails open: when the lock's directory or file
    // cannot be made, this process runs as the agent without exclusion. When
    // the lock is granted the file holds `processIdentifier` and a line feed.
    QuillfortAgentSingleInstanceGuard(FileSystem& fileSystem,
                                      const std::optional<std::filesystem::path>& homeDirectory,
                                      int processIdentifier);
    // Unlocks and closes the descriptor; the lock file itself stays.
    ~QuillfortAgentSingleInstanceGuard();
    QuillfortAgentSingleInstanceGuard(const QuillfortAgentSingleInstanceGuard&) = delete;
    QuillfortAgentSingleInstanceGuard& operator=(const QuillfortAgentSingleInstanceGuard&) = delete;

    // False only when another open of the lock file holds the lock.
    [[nodiscard]] bool shouldActivateCurrentInstance() const noexcept { return shouldActivateCurrentInstance_; }
    // -1 when no lock file could be opened.
    [[nodiscard]] int fileDescriptor() const noexcept { return fileDescriptor_; }

    // <container>/QuillfortPromptBridge/QuillfortAgent.lock, or the lock file
    // in the temporary directory when there is no container.
    [[nodiscard]] static std::filesystem::path lockFileURL(const FileSystem& fileSystem,
                                                           const std::optional<std::filesystem::path>& homeDirectory);

private:
    int fileDescriptor_ = -1;
    bool shouldActivateCurrentInstance_ = true;
};

}  // namespace quillfort
