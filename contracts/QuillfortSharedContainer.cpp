#include "contracts/QuillfortSharedContainer.hpp"

#include "contracts/QuillfortPromptEndpointStore.hpp"

namespace quillfort::QuillfortSharedContainer {

namespace {

std::optional<std::filesystem::path> fileInContainer(const FileSystem& fileSystem,
                                                     const std::optional<std::filesystem::path>& homeDirectory,
                                                     std::string_view filename) {
    auto container = containerURL(fileSystem, homeDirectory);
    if (!container) return std::nullopt;
    return *container / filename;
}

}  // namespace

std::optional<std::filesystem::path> containerURL(const FileSystem& fileSystem,
                                                  const std::optional<std::filesystem::path>& homeDirectory) {
    if (auto container = fileSystem.appGroupContainer(appGroupIdentifier)) return container;

    std::optional<std::filesystem::path> home;
    if (homeDirectory) {
        home = QuillfortPromptEndpointStore::standardized(*homeDirectory);
    } else if (auto console = fileSystem.consoleUserHomeDirectory()) {
        home = std::move(console);
    } else {
        home = fileSystem.currentHomeDirectory();
    }
    if (!home) return std::nullopt;
    return QuillfortPromptEndpointStore::fallbackPromptBridgeDirectoryURL(*home, fileSystem);
}

VoidResult keepParentsPrivate(FileSystem& fileSystem, const std::optional<std::filesystem::path>& homeDirectory) {
    if (fileSystem.appGroupContainer(appGroupIdentifier)) return {};
    const auto container = containerURL(fileSystem, homeDirectory);
    if (!container) return {};
    const auto groupContainers = container->parent_path();
    for (const auto& folder : {groupContainers.parent_path(), groupContainers}) {
        if (auto made = fileSystem.createDirectories(folder); !made) return made;
        if (auto closed = fileSystem.setPosixPermissions(folder, 0700); !closed) return closed;
    }
    return {};
}

std::optional<std::filesystem::path> ruleSnapshotURL(const FileSystem& fileSystem,
                                                     const std::optional<std::filesystem::path>& homeDirectory) {
    return fileInContainer(fileSystem, homeDirectory, ruleSnapshotFilename);
}

std::optional<std::filesystem::path> flowFilterMonitorSnapshotURL(
    const FileSystem& fileSystem, const std::optional<std::filesystem::path>& homeDirectory) {
    return fileInContainer(fileSystem, homeDirectory, flowFilterMonitorSnapshotFilename);
}

std::optional<std::filesystem::path> processGraphSnapshotURL(
    const FileSystem& fileSystem, const std::optional<std::filesystem::path>& homeDirectory) {
    return fileInContainer(fileSystem, homeDirectory, processGraphSnapshotFilename);
}

std::optional<std::filesystem::path> promptAgentStatusURL(const FileSystem& fileSystem,
                                                          const std::optional<std::filesystem::path>& homeDirectory) {
    return fileInContainer(fileSystem, homeDirectory, promptAgentStatusFilename);
}

std::optional<std::filesystem::path> promptAgentAutomationCommandURL(
    const FileSystem& fileSystem, const std::optional<std::filesystem::path>& homeDirectory) {
    return fileInContainer(fileSystem, homeDirectory, promptAgentAutomationCommandFilename);
}

}  // namespace quillfort::QuillfortSharedContainer
