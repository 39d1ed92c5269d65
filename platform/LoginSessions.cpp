#include "platform/LoginSessions.hpp"

#include <systemd/sd-login.h>

namespace quillfort::LoginSessions {

std::optional<uid_t> activeConsoleUser() {
    uid_t uid = 0;
    // Only the uid is wanted; sd-login accepts a null session pointer.
    if (::sd_seat_get_active("seat0", nullptr, &uid) < 0) return std::nullopt;
    return uid;
}

}  // namespace quillfort::LoginSessions
