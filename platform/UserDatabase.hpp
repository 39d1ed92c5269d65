// Look-ups in the system's account database (passwd and group), for the
// homes of users other than the one named by the environment and for the
// group a trusted peer may belong to.
#pragma once

#include <filesystem>
#include <optional>
#include <string>

#include <sys/types.h>

namespace quillfort::UserDatabase {

// The account's home directory; nothing when there is no such account or it
// has no home.
[[nodiscard]] std::optional<std::filesystem::path> homeDirectory(uid_t uid);

// The group's id; nothing when there is no group of that name.
[[nodiscard]] std::optional<gid_t> groupID(const std::string& name);

// Whether the account is in the group, as its primary group or as a member;
// false when there is no such account.
[[nodiscard]] bool isGroupMember(uid_t uid, gid_t gid);

}  // namespace quillfort::UserDatabase
