// User defaults kept as one JSON object in a file of the user's configuration
// directory, replaced atomically on every change.
#pragma once

#include <filesystem>
#include <memory>
#include <mutex>

#include "platform/FileSystem.hpp"
#include "platform/ProcessInfo.hpp"
#include "platform/UserDefaults.hpp"

namespace quillfort {

// The file is read afresh on every get (it holds a handful of keys) so values
// written by another process are seen. A file that cannot be read or is not a
// JSON object counts as empty, and the next change replaces it whole.
class FileUserDefaults final : public UserDefaults {
public:
    FileUserDefaults(std::shared_ptr<FileSystem> fileSystem, std::filesystem::path location);

    // "$XDG_CONFIG_HOME/quillfort/defaults.json" when that variable holds an
    // absolute path, else "<home>/.config/quillfort/defaults.json" with the
    // file system's current home; nothing when there is no home either.
    [[nodiscard]] static std::optional<std::filesystem::path> standardLocation(
        const ProcessInfo& processInfo, const FileSystem& fileSystem);

    [[nodiscard]] const std::filesystem::path& location() const noexcept { return location_; }

    [[nodiscard]] std::optional<std::string> string(std::string_view key) const override;
    [[nodiscard]] std::optional<std::string> data(std::string_view key) const override;
    [[nodiscard]] VoidResult setString(std::string_view key, std::string_view value) override;
    [[nodiscard]] VoidResult setData(std::string_view key, std::string_view bytes) override;
    [[nodiscard]] VoidResult remove(std::string_view key) override;

private:
    std::shared_ptr<FileSystem> fileSystem_;
    std::filesystem::path location_;
    // Serialises this object's read-modify-write cycles so no change is lost
    // between threads; other processes are not coordinated (last write wins).
    std::mutex writeMutex_;
};

}  // namespace quillfort
