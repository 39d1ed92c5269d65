#include "contracts/QuillfortPromptEndpointStore.hpp"

#include <algorithm>
#include <cerrno>

#include "contracts/QuillfortSharedContainer.hpp"
#include "model/Text.hpp"

namespace quillfort::QuillfortPromptEndpointStore {

namespace {

constexpr unsigned accessibleDirectoryPermissions = 0777;
constexpr unsigned accessibleFilePermissions = 0666;

bool notBlank(const std::optional<std::string>& value) {
    return value && !text::trimmed(*value).empty();
}

}  // namespace

std::vector<std::string> fallbackPromptBridgeDirectoryNames() {
    constexpr std::string_view groupPrefix = "group.";
    std::vector<std::string> names{std::string(QuillfortSharedContainer::appGroupIdentifier)};
    if (QuillfortSharedContainer::appGroupIdentifier.starts_with(groupPrefix)) {
        std::string unprefixed(QuillfortSharedContainer::appGroupIdentifier.substr(groupPrefix.size()));
        if (std::find(names.begin(), names.end(), unprefixed) == names.end()) names.push_back(std::move(unprefixed));
    }
    return names;
}

std::filesystem::path standardized(const std::filesystem::path& path) {
    std::filesystem::path normal = path.lexically_normal();
    // "/a/b/" -> "/a/b", but "/" stays the root.
    if (!normal.has_filename() && normal.has_relative_path()) normal = normal.parent_path();
    return normal;
}

std::filesystem::path fallbackPromptBridgeDirectoryURL(const std::filesystem::path& home,
                                                       const FileSystem& fileSystem) {
    const std::filesystem::path base = home / "Library" / "Group Containers";
    const auto names = fallbackPromptBridgeDirectoryNames();
    for (const auto& name : names) {
        if (fileSystem.exists(base / name)) return base / name;
    }
    return base / names.front();
}

std::vector<std::filesystem::path> candidatePromptBridgeDirectoryURLs(
    const FileSystem& fileSystem, const std::optional<std::filesystem::path>& homeDirectory) {
    std::vector<std::filesystem::path> candidates;
    if (auto container = fileSystem.appGroupContainer(QuillfortSharedContainer::appGroupIdentifier))
        candidates.push_back(*container);

    // The console user is only asked when the caller names no home.
    std::optional<std::filesystem::path> preferredHome =
        homeDirectory ? homeDirectory : fileSystem.consoleUserHomeDirectory();
    if (preferredHome) preferredHome = standardized(*preferredHome);
    std::optional<std::filesystem::path> currentHome = fileSystem.currentHomeDirectory();
    if (currentHome) currentHome = standardized(*currentHome);

    if (preferredHome) candidates.push_back(fallbackPromptBridgeDirectoryURL(*preferredHome, fileSystem));
    // A process running as another user than the console's also looks in its own home.
    if (currentHome && preferredHome != currentHome)
        candidates.push_back(fallbackPromptBridgeDirectoryURL(*currentHome, fileSystem));

    std::vector<std::filesystem::path> unique;
    for (const auto& candidate : candidates) {
        auto normal = standardized(candidate);
        if (std::find(unique.begin(), unique.end(), normal) == unique.end()) unique.push_back(std::move(normal));
    }
    return unique;
}

std::vector<std::filesystem::path> listenerEndpointCandidateURLs(
    const FileSystem& fileSystem, const std::optional<std::filesystem::path>& homeDirectory) {
    auto candidates = candidatePromptBridgeDirectoryURLs(fileSystem, homeDirectory);
    for (auto& candidate : candidates) candidate /= listenerEndpointFilename;
    return candidates;
}

std::optional<std::filesystem::path> listenerEndpointURL(const FileSystem& fileSystem,
                                                         const std::optional<std::filesystem::path>& homeDirectory) {
    auto candidates = candidatePromptBridgeDirectoryURLs(fileSystem, homeDirectory);
    if (candidates.empty()) return std::nullopt;
    return candidates.front() / listenerEndpointFilename;
}

std::optional<std::filesystem::path> bridgeSessionsDirectoryURL(
    const FileSystem& fileSystem, const std::optional<std::filesystem::path>& homeDirectory) {
    auto candidates = candidatePromptBridgeDirectoryURLs(fileSystem, homeDirectory);
    if (candidates.empty()) return std::nullopt;
    return candidates.front() / bridgeSessionsDirectoryName;
}

std::optional<std::filesystem::path> bridgeSessionDirectoryURL(
    std::string_view sessionIdentifier, const FileSystem& fileSystem,
    const std::optional<std::filesystem::path>& homeDirectory) {
    auto sessions = bridgeSessionsDirectoryURL(fileSystem, homeDirectory);
    if (!sessions) return std::nullopt;
    return *sessions / sessionIdentifier;
}

std::optional<std::filesystem::path> requestDirectoryURL(std::string_view sessionIdentifier,
                                                         const FileSystem& fileSystem,
                                                         const std::optional<std::filesystem::path>& homeDirectory) {
    auto session = bridgeSessionDirectoryURL(sessionIdentifier, fileSystem, homeDirectory);
    if (!session) return std::nullopt;
    return *session / requestDirectoryName;
}

std::optional<std::filesystem::path> responseDirectoryURL(std::string_view sessionIdentifier,
                                                          const FileSystem& fileSystem,
                                                          const std::optional<std::filesystem::path>& homeDirectory) {
    auto session = bridgeSessionDirectoryURL(sessionIdentifier, fileSystem, homeDirectory);
    if (!session) return std::nullopt;
    return *session / responseDirectoryName;
}

bool usesSharedPromptBridge(const std::filesystem::path& url, const FileSystem& fileSystem) {
    const std::string path = standardized(url).native();
    for (const auto& candidate : candidatePromptBridgeDirectoryURLs(fileSystem, std::nullopt)) {
        std::string root = standardized(candidate).native();
        if (path == root) return true;
        // The root must end at a component boundary: /X/BridgeOther is not below /X/Bridge.
        if (!root.ends_with('/')) root.push_back('/');
        if (path.starts_with(root)) return true;
    }
    return false;
}

bool shouldIgnoreAccessibilityAttributeError(const Error& error) {
    return error.code == std::errc::operation_not_permitted || error.code == std::errc::permission_denied ||
           error.code == std::errc::read_only_file_system;
}

VoidResult setAccessibleAttributesIfPossible(unsigned posixPermissions, const std::filesystem::path& atPath,
                                             FileSystem& fileSystem) {
    auto set = fileSystem.setPosixPermissions(atPath, posixPermissions);
    if (!set && !shouldIgnoreAccessibilityAttributeError(set.error())) return set;
    return {};
}

VoidResult ensureAccessibleDirectory(const std::filesystem::path& url, FileSystem& fileSystem) {
    if (!usesSharedPromptBridge(url, fileSystem)) return {};
    if (!fileSystem.exists(url)) {
        if (auto created = fileSystem.createDirectories(url); !created) return created;
    }
    return setAccessibleAttributesIfPossible(accessibleDirectoryPermissions, url, fileSystem);
}

VoidResult ensureAccessibleFile(const std::filesystem::path& url, FileSystem& fileSystem) {
    if (!usesSharedPromptBridge(url, fileSystem)) return {};
    return setAccessibleAttributesIfPossible(accessibleFilePermissions, url, fileSystem);
}

bool isUsable(const QuillfortPromptListenerRecord& listenerRecord) {
    switch (listenerRecord.transport) {
        case QuillfortPromptBridgeTransportKind::fileRequestResponse:
            return notBlank(listenerRecord.requestsDirectoryPath) && notBlank(listenerRecord.responsesDirectoryPath);
        case QuillfortPromptBridgeTransportKind::machServiceXPC:
            return notBlank(listenerRecord.machServiceName);
    }
    return false;
}

Error invalidListenerRecord(std::string_view path, std::string_view detail) {
    std::string description = "Invalid Quillfort prompt listener manifest at ";
    description += path;
    description += ": ";
    description += detail;
    return Error::withMessage(std::move(description));
}

Error unreadableListenerRecord(std::string_view path, std::string_view detail, std::error_code code) {
    std::string description = "Failed to read the Quillfort prompt listener manifest at ";
    description += path;
    description += ": ";
    description += detail;
    return Error{code, std::move(description)};
}

VoidResult save(const QuillfortPromptListenerRecord& listenerRecord, FileSystem& fileSystem,
                const std::optional<std::filesystem::path>& homeDirectory) {
    auto location = listenerEndpointURL(fileSystem, homeDirectory);
    if (!location) return {};
    if (auto opened = ensureAccessibleDirectory(location->parent_path(), fileSystem); !opened) return opened;
    if (auto written = fileSystem.writeFileAtomically(*location, encodeCompact(listenerRecord)); !written)
        return written;
    return ensureAccessibleFile(*location, fileSystem);
}

VoidResult save(std::string_view machServiceName, FileSystem& fileSystem,
                const std::optional<std::filesystem::path>& homeDirectory) {
    QuillfortPromptListenerRecord record;
    record.transport = QuillfortPromptBridgeTransportKind::machServiceXPC;
    record.machServiceName = std::string(machServiceName);
    return save(record, fileSystem, homeDirectory);
}

Result<std::optional<QuillfortPromptListenerRecord>> load(const FileSystem& fileSystem,
                                                          const std::optional<std::filesystem::path>& homeDirectory) {
    // An unusable manifest at one candidate must not hide a usable one at a
    // later candidate, so problems are only reported when nothing is usable.
    std::optional<Error> firstProblem;
    for (const auto& location : listenerEndpointCandidateURLs(fileSystem, homeDirectory)) {
        if (!fileSystem.exists(location)) continue;
        auto bytes = fileSystem.readFile(location);
        if (!bytes) {
            if (!firstProblem)
                firstProblem = unreadableListenerRecord(location.native(), bytes.error().description, bytes.error().code);
            continue;
        }
        auto record = decodeJson<QuillfortPromptListenerRecord>(*bytes);
        if (!record) {
            if (!firstProblem) firstProblem = unreadableListenerRecord(location.native(), record.error().description());
            continue;
        }
        if (isUsable(*record)) return std::optional<QuillfortPromptListenerRecord>(std::move(*record));
        if (!firstProblem) firstProblem = invalidListenerRecord(location.native(), record->summary());
    }
    if (firstProblem) return std::unexpected(std::move(*firstProblem));
    return std::optional<QuillfortPromptListenerRecord>{};
}

VoidResult clear(FileSystem& fileSystem, const std::optional<std::filesystem::path>& homeDirectory) {
    for (const auto& location : listenerEndpointCandidateURLs(fileSystem, homeDirectory)) {
        if (!fileSystem.exists(location)) continue;
        if (auto removed = fileSystem.removeItem(location); !removed) return removed;
    }
    return {};
}

}  // namespace quillfort::QuillfortPromptEndpointStore
