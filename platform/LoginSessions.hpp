// Who sits at the machine: the user of the active session on the main seat,
// as systemd-logind knows it. Stands in for the owner of the console device.
#pragma once

#include <optional>

#include <sys/types.h>

namespace quillfort::LoginSessions {

// The uid of the active session on "seat0"; nothing where logind is absent,
// the seat does not exist or nobody is signed in there.
[[nodiscard]] std::optional<uid_t> activeConsoleUser();

}  // namespace quillfort::LoginSessions
