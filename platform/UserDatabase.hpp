// Look-ups in the system's account database (passwd), for the homes of users
// other than the one named by the environment.
#pragma once

#include <filesystem>
#include <optional>

#include <sys/types.h>

namespace quillfort::UserDatabase {

// The account's home directory; nothing when there is no such account or it
// has no home.
[[nodiscard]] std::optional<std::filesystem::path> homeDirectory(uid_t uid);

}  // namespace quillfort::UserDatabase
