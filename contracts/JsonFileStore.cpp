#include "contracts/JsonFileStore.hpp"

namespace quillfort::detail {

Result<std::optional<std::string>> readStoreFile(const FileSystem& fileSystem,
                                                 const std::optional<std::filesystem::path>& location) {
    if (!location) return std::optional<std::string>{};
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
