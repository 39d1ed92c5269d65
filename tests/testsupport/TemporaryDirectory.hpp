// A fresh directory under /tmp for one test, removed with everything in it
// when the object goes away.
#pragma once

#include <filesystem>
#include <string_view>
#include <string>
#include <optional>

namespace quillfort::testing {

class TemporaryDirectory {
public:
    TemporaryDirectory();
    ~TemporaryDirectory();
    TemporaryDirectory(const TemporaryDirectory&) = delete;
    TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

    [[nodiscard]] const std::filesystem::path& path() const noexcept { return path_; }

private:
    std::filesystem::path path_;
};

// A whole file's bytes; nothing when it cannot be opened.
[[nodiscard]] std::optional<std::string> readText(const std::filesystem::path& path);
// Writes `text` as the whole file, creating its parent directories.
void writeText(const std::filesystem::path& path, std::string_view text);
// The permission bits of `path` (with set-id and sticky bits); 0 when it cannot be read.
[[nodiscard]] unsigned permissionsOf(const std::filesystem::path& path);

}  // namespace quillfort::testing
