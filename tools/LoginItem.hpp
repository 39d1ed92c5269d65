// Whether the agent starts with the user's session, and switching that on and
// off: through the systemd user unit where a user manager knows it, else
// through the XDG autostart entry. Only two places are ever written: the user
// manager's own enablement links (by asking it) and the user's autostart
// folder.
#pragma once

#include <expected>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/FileSystem.hpp"

namespace quillfort::LoginItem {

inline constexpr std::string_view unitName = "quillfort-agent.service";
inline constexpr std::string_view autostartEntryName = "quillfort-agent.desktop";

// The systemd user manager, as far as the login item needs it. Injected so
// tests never touch the real session.
class UserServiceManager {
public:
    virtual ~UserServiceManager() = default;
    // The unit's file state as the user manager reports it ("enabled",
    // "disabled", "masked", ...); nothing when no user manager runs or it does
    // not know the unit.
    [[nodiscard]] virtual std::optional<std::string> unitFileState(std::string_view unit) = 0;
    // The error text says what the manager refused.
    [[nodiscard]] virtual std::expected<void, std::string> setUnitEnabled(std::string_view unit, bool enabled) = 0;
    // Whether the manager's graphical-session.target is active: only desktops
    // that tell systemd about their session reach it, and the unit starts
    // with it.
    [[nodiscard]] virtual bool graphicalSessionReached() = 0;
};

// Asks `systemctl --user`, once the user manager's socket under
// XDG_RUNTIME_DIR shows that one runs.
[[nodiscard]] std::shared_ptr<UserServiceManager> systemctlUserServiceManager(
    const std::map<std::string, std::string>& variables);

// Where autostart entries live for this user, from XDG_CONFIG_HOME and
// XDG_CONFIG_DIRS (relative values are ignored, as XDG says) and the home.
struct AutostartLocations {
    std::filesystem::path userDirectory;                  // ~/.config/autostart
    std::vector<std::filesystem::path> systemDirectories;  // /etc/xdg/autostart first by default

    bool operator==(const AutostartLocations&) const = default;
};

[[nodiscard]] std::optional<AutostartLocations> autostartLocations(
    const std::map<std::string, std::string>& variables, const std::optional<std::filesystem::path>& home);

// What starts the agent at the next login.
struct State {
    // The unit's file state; nothing when no user manager knows the unit, in
    // which case only the autostart entry counts.
    std::optional<std::string> unitState;
    // The autostart entry that a login would read for this user (the user's
    // own copy shadows the system one), and whether it starts the agent.
    std::optional<std::filesystem::path> autostartEntry;
    bool autostartActive = false;

    [[nodiscard]] bool unitEnabled() const;
    [[nodiscard]] bool enabled() const { return unitEnabled() || autostartActive; }

    bool operator==(const State&) const = default;
};

struct Context {
    FileSystem& fileSystem;
    UserServiceManager* userServices;  // null: no systemd user manager
    AutostartLocations locations;
};

[[nodiscard]] std::expected<State, std::string> status(const Context& context);

// Enabling prefers the unit (restarted on failure, logs in the journal) and
// hides the autostart entry so only one launcher starts the agent; without
// the unit, or where the user manager never reaches graphical-session.target
// (the unit would then never start), it restores the autostart entry.
// Disabling turns both off.
[[nodiscard]] std::expected<State, std::string> setEnabled(const Context& context, bool enabled);

// One or two lines for people: whether the agent starts at login, and which
// mechanism is in force.
[[nodiscard]] std::string describe(const State& state);

// Whether an autostart entry's text starts its program: not when it says
// Hidden=true or X-GNOME-Autostart-enabled=false in its [Desktop Entry] group.
[[nodiscard]] bool autostartEntryStartsProgram(std::string_view entryText);

}  // namespace quillfort::LoginItem
