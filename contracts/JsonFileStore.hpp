// One small file holding one JSON value, shared between processes: the rule
// snapshot, the agent status and the automation command are all kept this way.
// Written whole and atomically, indented with keys sorted; a missing file is
// "nothing", every other problem is reported to the caller.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <utility>

#include "model/Json.hpp"
#include "platform/Error.hpp"
#include "platform/FileSystem.hpp"

namespace quillfort {

namespace detail {
// Far above any real rule set or status; a larger file is refused unread.
inline constexpr std::uint64_t maximumStoreFileSize = 64u * 1024u * 1024u;

// The file's bytes; nothing without a location or when the file does not exist.
[[nodiscard]] Result<std::optional<std::string>> readStoreFile(const FileSystem& fileSystem,
                                                               const std::optional<std::filesystem::path>& location);
// Creates the missing parent directories, then replaces the file atomically;
// only a durable write waits for the disk.
[[nodiscard]] VoidResult writeStoreFile(FileSystem& fileSystem, const std::optional<std::filesystem::path>& location,
                                        std::string_view bytes, bool durable = true);
// Removes the file when it exists.
[[nodiscard]] VoidResult removeStoreFile(FileSystem& fileSystem, const std::optional<std::filesystem::path>& location);
}  // namespace detail

// The store only refers to the file system, which must outlive it. With no
// location every operation does nothing and succeeds.
template <JsonCodable T>
class JsonFileStore {
public:
    JsonFileStore(FileSystem& fileSystem, std::optional<std::filesystem::path> location)
        : fileSystem_(&fileSystem), location_(std::move(location)) {}

    [[nodiscard]] const std::optional<std::filesystem::path>& location() const noexcept { return location_; }

    [[nodiscard]] Result<std::optional<T>> loadIfPresent() const {
        auto bytes = detail::readStoreFile(*fileSystem_, location_);
        if (!bytes) return std::unexpected(std::move(bytes.error()));
        if (!*bytes) return std::optional<T>{};
        auto value = decodeJson<T>(**bytes);
        if (!value) return std::unexpected(Error::withMessage(value.error().description()));
        return std::optional<T>(std::move(*value));
    }

    [[nodiscard]] VoidResult save(const T& value) const {
        if (!location_) return {};
        return detail::writeStoreFile(*fileSystem_, location_, encodePretty(value));
    }

    // For a file that only mirrors state kept elsewhere: still replaced whole
    // and atomically, but a crash may leave the previous version behind.
    [[nodiscard]] VoidResult saveWithoutSync(const T& value) const {
        if (!location_) return {};
        return detail::writeStoreFile(*fileSystem_, location_, encodePretty(value), /*durable=*/false);
    }

    [[nodiscard]] VoidResult clear() const { return detail::removeStoreFile(*fileSystem_, location_); }

private:
    FileSystem* fileSystem_;
    std::optional<std::filesystem::path> location_;
};

}  // namespace quillfort
