#include "platform/UserDatabase.hpp"

#include <cerrno>
#include <vector>

#include <pwd.h>
#include <unistd.h>

namespace quillfort::UserDatabase {

std::optional<std::filesystem::path> homeDirectory(uid_t uid) {
    long suggested = ::sysconf(_SC_GETPW_R_SIZE_MAX);
    std::vector<char> buffer(suggested > 0 ? static_cast<std::size_t>(suggested) : 4096);
    // Entries larger than the suggested size exist (long GECOS fields); grow
    // the buffer on ERANGE up to a sane bound instead of giving up.
    while (true) {
        passwd entry{};
        passwd* found = nullptr;
        int rc = ::getpwuid_r(uid, &entry, buffer.data(), buffer.size(), &found);
        if (rc == EINTR) continue;
        if (rc == ERANGE && buffer.size() < (1U << 20)) {
            buffer.resize(buffer.size() * 2);
            continue;
        }
        if (rc != 0 || found == nullptr || found->pw_dir == nullptr || found->pw_dir[0] == '\0') {
            return std::nullopt;
        }
        return std::filesystem::path(found->pw_dir);
    }
}

}  // namespace quillfort::UserDatabase
