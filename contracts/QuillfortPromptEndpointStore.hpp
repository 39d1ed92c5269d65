// Where the prompt bridge lives and how the agent tells clients about it: the
// bridge directory candidates, the listener manifest ("QuillfortPromptAgent.endpoint")
// and the helpers that open bridge directories and files to both sides.
// Stateless: every call looks at the disk afresh.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "contracts/QuillfortPromptListenerRecord.hpp"
#include "platform/Error.hpp"
#include "platform/FileSystem.hpp"

namespace quillfort::QuillfortPromptEndpointStore {

inline constexpr std::string_view listenerEndpointFilename = "QuillfortPromptAgent.endpoint";
inline constexpr std::string_view defaultMachServiceName = "group.com.vessimo.Quillfort.shared.QuillfortPromptAgent";
inline constexpr std::string_view defaultLoopbackHost = "127.0.0.1";
inline constexpr std::uint16_t defaultLoopbackPort = 27839;
inline constexpr std::string_view bridgeSessionsDirectoryName = "QuillfortPromptBridge";
inline constexpr std::string_view requestDirectoryName = "Requests";
inline constexpr std::string_view responseDirectoryName = "Responses";

// Directory names tried under ~/Library/Group Containers, in order: the group
// identifier, then the same without its "group." prefix.
[[nodiscard]] std::vector<std::string> fallbackPromptBridgeDirectoryNames();

// The form in which paths are compared: "." and ".." resolved lexically, no
// trailing "/" (except for the root itself).
[[nodiscard]] std::filesystem::path standardized(const std::filesystem::path& path);

// --- Locations ------------------------------------------------------------

// The first bridge directory candidate with the manifest name appended.
[[nodiscard]] std::optional<std::filesystem::path> listenerEndpointURL(
    const FileSystem& fileSystem, const std::optional<std::filesystem::path>& homeDirectory);
// The first candidate with "QuillfortPromptBridge" appended.
[[nodiscard]] std::optional<std::filesystem::path> bridgeSessionsDirectoryURL(
    const FileSystem& fileSystem, const std::optional<std::filesystem::path>& homeDirectory);
[[nodiscard]] std::optional<std::filesystem::path> bridgeSessionDirectoryURL(
    std::string_view sessionIdentifier, const FileSystem& fileSystem,
    const std::optional<std::filesystem::path>& homeDirectory);
[[nodiscard]] std::optional<std::filesystem::path> requestDirectoryURL(
    std::string_view sessionIdentifier, const FileSystem& fileSystem,
    const std::optional<std::filesystem::path>& homeDirectory);
[[nodiscard]] std::optional<std::filesystem::path> responseDirectoryURL(
    std::string_view sessionIdentifier, const FileSystem& fileSystem,
    const std::optional<std::filesystem::path>& homeDirectory);

// --- Manifest ---------------------------------------------------------------

// Publishes the manifest at listenerEndpointURL (nothing to do when there is
// none): opens its directory to both sides, writes compact JSON atomically,
// then opens the file.
[[nodiscard]] VoidResult save(const QuillfortPromptListenerRecord& listenerRecord, FileSystem& fileSystem,
                              const std::optional<std::filesystem::path>& homeDirectory);
// Publishes a manifest naming only a service.
[[nodiscard]] VoidResult save(std::string_view machServiceName, FileSystem& fileSystem,
                              const std::optional<std::filesystem::path>& homeDirectory);

// The first usable manifest among the candidates. When none is usable, the
// first problem met is reported; absent when no manifest exists anywhere.
[[nodiscard]] Result<std::optional<QuillfortPromptListenerRecord>> load(
    const FileSystem& fileSystem, const std::optional<std::filesystem::path>& homeDirectory);

// Removes every published manifest; stops at the first removal that fails.
[[nodiscard]] VoidResult clear(FileSystem& fileSystem, const std::optional<std::filesystem::path>& homeDirectory);

// --- Access for both sides ---------------------------------------------------

// Inside the shared bridge only: creates the directory when missing and sets
// 0o777. Refusals for lack of rights or a read-only volume are ignored.
[[nodiscard]] VoidResult ensureAccessibleDirectory(const std::filesystem::path& url, FileSystem& fileSystem);
// Inside the shared bridge only: sets 0o666, ignoring the same refusals.
[[nodiscard]] VoidResult ensureAccessibleFile(const std::filesystem::path& url, FileSystem& fileSystem);

// --- Building blocks, public for the bridge code and for tests -----------------

// The system's group container, the fallback under the preferred home
// (homeDirectory, else the console user's home), and the fallback under the
// current home when that differs; standardized, first occurrences kept.
[[nodiscard]] std::vector<std::filesystem::path> candidatePromptBridgeDirectoryURLs(
    const FileSystem& fileSystem, const std::optional<std::filesystem::path>& homeDirectory);
[[nodiscard]] std::vector<std::filesystem::path> listenerEndpointCandidateURLs(
    const FileSystem& fileSystem, const std::optional<std::filesystem::path>& homeDirectory);
// home/Library/Group Containers/<first fallback name that exists>, else the
// first name even though it does not exist yet.
[[nodiscard]] std::filesystem::path fallbackPromptBridgeDirectoryURL(const std::filesystem::path& home,
                                                                     const FileSystem& fileSystem);
// True when url is a candidate root (seen without an explicit home) or lies below one.
[[nodiscard]] bool usesSharedPromptBridge(const std::filesystem::path& url, const FileSystem& fileSystem);
[[nodiscard]] VoidResult setAccessibleAttributesIfPossible(unsigned posixPermissions,
                                                           const std::filesystem::path& atPath,
                                                           FileSystem& fileSystem);
// EPERM, EACCES and EROFS: the item keeps the permissions it had.
[[nodiscard]] bool shouldIgnoreAccessibilityAttributeError(const Error& error);
// A transport's essentials are present and not blank.
[[nodiscard]] bool isUsable(const QuillfortPromptListenerRecord& listenerRecord);

// The two problems load reports.
[[nodiscard]] Error invalidListenerRecord(std::string_view path, std::string_view detail);
[[nodiscard]] Error unreadableListenerRecord(std::string_view path, std::string_view detail,
                                             std::error_code code = {});

}  // namespace quillfort::QuillfortPromptEndpointStore
