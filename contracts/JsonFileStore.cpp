#include "contracts/JsonFileStore.hpp"

#include <fmt/format.h>

namespace quillfort::detail {

Result<std::optional<std::string>> readStoreFile(const FileSystem& fileSystem,
                                                 const std::optional<std::filesystem::path>& location) {
    if (!location) return std::optional<std::string>{};
    const auto identity = fileSystem.fileIdentity(*location);
    // The agent looks for its command file ten times a second: when the look
    // already says there is none, there is nothing to open.
    if (!identity && identity.error().isNoSuchFile()) return std::optional<std::string>{};
    // Store files sit in a folder other users' processes may write to; a file
    // planted there must not make the reader hold gigabytes.
    if (identity && identity->size > maximumStoreFileSize) {
        return std::unexpected(Error{std::make_error_code(std::errc::file_too_large),
                                     fmt::format("{} holds {} bytes, more than the {} a Quillfort file may hold.",
                                                 location->string(), identity->size, maximumStoreFileSize)});
    }
    auto bytes = fileSystem.readFile(*location);
    if (!bytes) {
        if (bytes.error().isNoSuchFile()) return std::optional<std::string>{};
        return std::unexpected(std::move(bytes.error()));
    }
    return std::optional<std::string>(std::move(*bytes));
}

VoidResult writeStoreFile(FileSystem& fileSystem, const std::optional<std::filesystem::path>& location,
                          std::string_view bytes, bool durable) {
    if (!location) return {};
    if (auto directory = location->parent_path(); !directory.empty()) {
        if (auto created = fileSystem.createDirectories(directory); !created) return created;
    }
    return durable ? fileSystem.writeFileAtomically(*location, bytes)
                   : fileSystem.replaceFileWithoutSync(*location, bytes);
}

VoidResult removeStoreFile(FileSystem& fileSystem, const std::optional<std::filesystem::path>& location) {
    if (!location || !fileSystem.exists(*location)) return {};
    return fileSystem.removeItem(*location);
}

}  // namespace quillfort::detail
