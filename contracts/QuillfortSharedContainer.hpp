// Where the filter side and the agent find their shared files: the shared
// container directory and the fixed file names inside it. Nothing is cached;
// every call looks at the disk afresh.
#pragma once

#include <filesystem>
#include <optional>
#include <string_view>

#include "platform/FileSystem.hpp"

namespace quillfort::QuillfortSharedContainer {

inline constexpr std::string_view appGroupIdentifier = "group.com.vessimo.Quillfort.shared";
inline constexpr std::string_view ruleSnapshotFilename = "RuleSnapshot.json";
inline constexpr std::string_view flowFilterMonitorSnapshotFilename = "FlowFilterMonitorSnapshot.json";
inline constexpr std::string_view processGraphSnapshotFilename = "ProcessGraphSnapshot.json";
inline constexpr std::string_view promptAgentStatusFilename = "PromptAgentStatus.json";
inline constexpr std::string_view promptAgentAutomationCommandFilename = "PromptAgentAutomationCommand.json";
// The agent's single-instance lock, in the container's QuillfortPromptBridge folder.
inline constexpr std::string_view agentLockFilename = "QuillfortAgent.lock";

// The system's group container when it has one; otherwise the Group Containers
// fallback under the first known of: homeDirectory, the console user's home,
// the current home. Absent only when none of those is known.
[[nodiscard]] std::optional<std::filesystem::path> containerURL(
    const FileSystem& fileSystem, const std::optional<std::filesystem::path>& homeDirectory);

// The two folders between the home and the fallback container ("Library" and
// "Library/Group Containers"), made when missing and kept private to their
// owner (0700): the bridge's entries inside the container are open to every
// user (0777/0666) so that a filter running as another user can use them, and
// these folders are what keeps other users out. Nothing to do for a
// system-assigned container. Fails with the error of making or closing a
// folder (EPERM for a folder of another owner).
[[nodiscard]] VoidResult keepParentsPrivate(FileSystem& fileSystem,
                                            const std::optional<std::filesystem::path>& homeDirectory);

// containerURL with the file name appended; absent when the container is.
[[nodiscard]] std::optional<std::filesystem::path> ruleSnapshotURL(
    const FileSystem& fileSystem, const std::optional<std::filesystem::path>& homeDirectory);
[[nodiscard]] std::optional<std::filesystem::path> flowFilterMonitorSnapshotURL(
    const FileSystem& fileSystem, const std::optional<std::filesystem::path>& homeDirectory);
[[nodiscard]] std::optional<std::filesystem::path> processGraphSnapshotURL(
    const FileSystem& fileSystem, const std::optional<std::filesystem::path>& homeDirectory);
[[nodiscard]] std::optional<std::filesystem::path> promptAgentStatusURL(
    const FileSystem& fileSystem, const std::optional<std::filesystem::path>& homeDirectory);
[[nodiscard]] std::optional<std::filesystem::path> promptAgentAutomationCommandURL(
    const FileSystem& fileSystem, const std::optional<std::filesystem::path>& homeDirectory);

}  // namespace quillfort::QuillfortSharedContainer
