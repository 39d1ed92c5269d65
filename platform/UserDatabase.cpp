#include "platform/UserDatabase.hpp"

#include <grp.h>
#include <pwd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <vector>

namespace quillfort::UserDatabase {

namespace {

// Runs a reentrant look-up (getpwuid_r and its kin) with a buffer that grows
// on ERANGE: entries larger than the suggested size exist (long GECOS fields,
// groups with many members), up to a sane bound.
template <class Entry, class Lookup>
std::optional<Entry> lookUp(int sizeHint, std::vector<char>& buffer, Lookup lookup) {
    const long suggested = ::sysconf(sizeHint);
    buffer.resize(suggested > 0 ? static_cast<std::size_t>(suggested) : 4096);
    while (true) {
        Entry entry{};
        Entry* found = nullptr;
        const int rc = lookup(&entry, buffer.data(), buffer.size(), &found);
        if (rc == EINTR) continue;
        if (rc == ERANGE && buffer.size() < (1U << 20)) {
            buffer.resize(buffer.size() * 2);
            continue;
        }
        if (rc != 0 || found == nullptr) return std::nullopt;
        return entry;
    }
}

}  // namespace

std::optional<std::filesystem::path> homeDirectory(uid_t uid) {
    std::vector<char> buffer;
    const auto entry = lookUp<passwd>(_SC_GETPW_R_SIZE_MAX, buffer, [uid](auto... args) {
        return ::getpwuid_r(uid, args...);
    });
    if (!entry || entry->pw_dir == nullptr || entry->pw_dir[0] == '\0') return std::nullopt;
    return std::filesystem::path(entry->pw_dir);
}

std::optional<gid_t> groupID(const std::string& name) {
    std::vector<char> buffer;
    const auto entry = lookUp<group>(_SC_GETGR_R_SIZE_MAX, buffer, [&name](auto... args) {
        return ::getgrnam_r(name.c_str(), args...);
    });
    if (!entry) return std::nullopt;
    return entry->gr_gid;
}

bool isGroupMember(uid_t uid, gid_t gid) {
    std::vector<char> buffer;
    const auto entry = lookUp<passwd>(_SC_GETPW_R_SIZE_MAX, buffer, [uid](auto... args) {
        return ::getpwuid_r(uid, args...);
    });
    if (!entry || entry->pw_name == nullptr) return false;
    if (entry->pw_gid == gid) return true;
    std::vector<gid_t> groups(64);
    while (true) {
        int count = static_cast<int>(groups.size());
        if (::getgrouplist(entry->pw_name, entry->pw_gid, groups.data(), &count) >= 0) {
            groups.resize(static_cast<std::size_t>(count));
            return std::ranges::find(groups, gid) != groups.end();
        }
        if (count <= static_cast<int>(groups.size()) || count > 65536) return false;
        groups.resize(static_cast<std::size_t>(count));
    }
}

}  // namespace quillfort::UserDatabase
