#include "tools/LoginItem.hpp"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

#include <fmt/format.h>

#include "model/Text.hpp"

extern char** environ;

namespace quillfort::LoginItem {

namespace {

// Written into the user's autostart folder to switch the system entry off for
// this user only; the file name shadows the system entry of the same name.
constexpr std::string_view hiddenOverride =
    "# Written by `quillfort login-item disable`: keeps the Quillfort agent from starting at login.\n"
    "# `quillfort login-item enable` removes it again.\n"
    "[Desktop Entry]\n"
    "Type=Application\n"
    "Name=Quillfort Agent\n"
    "Exec=quillfort-agent\n"
    "Hidden=true\n";

// For an install without a system entry (a source build under a prefix XDG
// does not search): the user's own entry is the login item.
constexpr std::string_view userEntry =
    "# Written by `quillfort login-item enable`: starts the Quillfort agent at login.\n"
    "[Desktop Entry]\n"
    "Type=Application\n"
    "Name=Quillfort Agent\n"
    "Comment=Login-item helper for traffic decisions\n"
    "Exec=quillfort-agent\n"
    "Icon=quillfort-agent\n"
    "Terminal=false\n"
    "NoDisplay=true\n";

std::optional<std::filesystem::path> absoluteVariable(const std::map<std::string, std::string>& variables,
                                                      const std::string& name) {
    auto found = variables.find(name);
    if (found == variables.end() || found->second.empty()) return std::nullopt;
    std::filesystem::path path(found->second);
    if (!path.is_absolute()) return std::nullopt;
    return path;
}

std::optional<std::filesystem::path> systemEntry(const Context& context) {
    for (const auto& directory : context.locations.systemDirectories) {
        auto entry = directory / autostartEntryName;
        if (context.fileSystem.exists(entry)) return entry;
    }
    return std::nullopt;
}

std::filesystem::path userEntryPath(const Context& context) {
    return context.locations.userDirectory / autostartEntryName;
}

class SystemctlUserServiceManager final : public UserServiceManager {
public:
    explicit SystemctlUserServiceManager(std::optional<std::filesystem::path> runtimeDirectory)
        : runtimeDirectory_(std::move(runtimeDirectory)) {}

    std::optional<std::string> unitFileState(std::string_view unit) override {
        // systemctl answers unit-file questions from the disk even when no user
        // manager runs, so first make sure one does: it listens on its private
        // socket in the user's runtime directory.
        std::error_code error;
        if (!runtimeDirectory_ || !std::filesystem::is_socket(*runtimeDirectory_ / "systemd" / "private", error))
            return std::nullopt;
        auto result = systemctl({"is-enabled", std::string(unit)});
        if (!result) return std::nullopt;
        // Without a user manager (or without the unit) systemctl prints only
        // an error on stderr; any word on stdout is a state it knows.
        auto state = std::string(text::trimmed(result->output));
        if (state.empty() || state.find_first_of(" \n") != std::string::npos) return std::nullopt;
        if (state == "not-found") return std::nullopt;
        return state;
    }

    bool graphicalSessionReached() override {
        auto result = systemctl({"is-active", "graphical-session.target"});
        return result && text::trimmed(result->output) == "active";
    }

    std::expected<void, std::string> setUnitEnabled(std::string_view unit, bool enabled) override {
        auto result = systemctl({enabled ? "enable" : "disable", std::string(unit)});
        if (!result) return std::unexpected(result.error());
        if (result->status != 0)
            return std::unexpected(fmt::format("systemctl --user {} {} failed with status {}",
                                               enabled ? "enable" : "disable", unit, result->status));
        return {};
    }

private:
    std::optional<std::filesystem::path> runtimeDirectory_;

    struct Outcome {
        int status = 0;
        std::string output;
    };

    // Runs `systemctl --user ARGS...` and collects its standard output; its
    // standard error reaches the user as it is.
    static std::expected<Outcome, std::string> systemctl(std::vector<std::string> arguments) {
        const bool query = arguments.front() == "is-enabled" || arguments.front() == "is-active";
        arguments.insert(arguments.begin(), {"systemctl", "--user"});
        std::vector<char*> argv;
        for (auto& argument : arguments) argv.push_back(argument.data());
        argv.push_back(nullptr);

        std::array<int, 2> pipe{};
        if (::pipe2(pipe.data(), O_CLOEXEC) != 0)
            return std::unexpected(fmt::format("cannot run systemctl: {}", std::strerror(errno)));
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, pipe[1], STDOUT_FILENO);
        if (query) {
            // "Failed to connect to bus" is how an absent user manager shows;
            // that is an answer here, not something to show the user.
            posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
        }
        pid_t child = -1;
        const int spawned = ::posix_spawnp(&child, "systemctl", &actions, nullptr, argv.data(), environ);
        posix_spawn_file_actions_destroy(&actions);
        ::close(pipe[1]);
        if (spawned != 0) {
            ::close(pipe[0]);
            return std::unexpected(fmt::format("cannot run systemctl: {}", std::strerror(spawned)));
        }
        Outcome outcome;
        std::array<char, 512> buffer{};
        for (;;) {
            const auto count = ::read(pipe[0], buffer.data(), buffer.size());
            if (count > 0) {
                outcome.output.append(buffer.data(), static_cast<std::size_t>(count));
            } else if (count == 0 || errno != EINTR) {
                break;
            }
        }
        ::close(pipe[0]);
        int status = 0;
        while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
        }
        outcome.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        return outcome;
    }
};

}  // namespace

std::shared_ptr<UserServiceManager> systemctlUserServiceManager(const std::map<std::string, std::string>& variables) {
    return std::make_shared<SystemctlUserServiceManager>(absoluteVariable(variables, "XDG_RUNTIME_DIR"));
}

std::optional<AutostartLocations> autostartLocations(const std::map<std::string, std::string>& variables,
                                                     const std::optional<std::filesystem::path>& home) {
    AutostartLocations locations;
    if (auto configHome = absoluteVariable(variables, "XDG_CONFIG_HOME")) {
        locations.userDirectory = *configHome / "autostart";
    } else if (home) {
        locations.userDirectory = *home / ".config" / "autostart";
    } else {
        return std::nullopt;
    }
    if (auto dirs = variables.find("XDG_CONFIG_DIRS"); dirs != variables.end()) {
        for (auto part : text::splitNonEmpty(dirs->second, ':')) {
            std::filesystem::path directory(part);
            if (directory.is_absolute()) locations.systemDirectories.push_back(directory / "autostart");
        }
    }
    if (locations.systemDirectories.empty()) locations.systemDirectories.emplace_back("/etc/xdg/autostart");
    return locations;
}

bool autostartEntryStartsProgram(std::string_view entryText) {
    bool inMainGroup = false;
    for (auto rawLine : text::splitNonEmpty(entryText, '\n')) {
        const auto line = text::trimmed(rawLine);
        if (line.empty() || line.front() == '#') continue;
        if (line.front() == '[') {
            inMainGroup = line == "[Desktop Entry]";
            continue;
        }
        if (!inMainGroup) continue;
        const auto equals = line.find('=');
        if (equals == std::string_view::npos) continue;
        const auto key = text::trimmed(line.substr(0, equals));
        const auto value = text::trimmed(line.substr(equals + 1));
        if (key == "Hidden" && value == "true") return false;
        if (key == "X-GNOME-Autostart-enabled" && value == "false") return false;
    }
    return true;
}

bool State::unitEnabled() const {
    return unitState == std::optional<std::string>("enabled") ||
           unitState == std::optional<std::string>("enabled-runtime");
}

std::expected<State, std::string> status(const Context& context) {
    State state;
    if (context.userServices) state.unitState = context.userServices->unitFileState(unitName);

    const auto userPath = userEntryPath(context);
    if (context.fileSystem.exists(userPath)) {
        state.autostartEntry = userPath;
    } else {
        state.autostartEntry = systemEntry(context);
    }
    if (state.autostartEntry) {
        auto text = context.fileSystem.readFile(*state.autostartEntry);
        if (!text)
            return std::unexpected(
                fmt::format("cannot read {}: {}", state.autostartEntry->string(), text.error().description));
        state.autostartActive = autostartEntryStartsProgram(*text);
    }
    return state;
}

namespace {

std::expected<void, std::string> writeUserEntry(const Context& context, std::string_view contents) {
    const auto path = userEntryPath(context);
    if (auto created = context.fileSystem.createDirectories(path.parent_path()); !created)
        return std::unexpected(
            fmt::format("cannot create {}: {}", path.parent_path().string(), created.error().description));
    if (auto written = context.fileSystem.writeFileAtomically(path, contents); !written)
        return std::unexpected(fmt::format("cannot write {}: {}", path.string(), written.error().description));
    return {};
}

std::expected<void, std::string> removeUserEntry(const Context& context) {
    const auto path = userEntryPath(context);
    if (auto removed = context.fileSystem.removeItem(path); !removed && !removed.error().isNoSuchFile())
        return std::unexpected(fmt::format("cannot remove {}: {}", path.string(), removed.error().description));
    return {};
}

// Makes the autostart entry start the agent or not, touching the user's
// folder only when the answer would otherwise be wrong.
std::expected<void, std::string> setAutostart(const Context& context, const State& current, bool active) {
    if (current.autostartActive == active) return {};
    if (!active) return writeUserEntry(context, hiddenOverride);
    // The user's copy is what hides the system entry: without it the system
    // entry speaks again. With no system entry the user's copy is the entry.
    if (systemEntry(context)) {
        auto removed = removeUserEntry(context);
        if (!removed) return removed;
        auto after = status(context);
        if (after && after->autostartActive) return {};
        // The system entry itself is switched off: only a user copy helps.
    }
    return writeUserEntry(context, userEntry);
}

}  // namespace

std::expected<State, std::string> setEnabled(const Context& context, bool enabled) {
    auto current = status(context);
    if (!current) return current;

    // Enabled, the unit starts with graphical-session.target; on a desktop
    // that never reaches it the unit would never run, and the autostart entry
    // is the login item there.
    const bool unitStartsAgent = current->unitState && (!enabled || context.userServices->graphicalSessionReached());
    if (unitStartsAgent) {
        if (current->unitEnabled() != enabled) {
            if (auto changed = context.userServices->setUnitEnabled(unitName, enabled); !changed)
                return std::unexpected(changed.error());
        }
        // The unit is the login item now; an autostart entry beside it would
        // only start a second copy that gives way at once.
        if (auto hidden = setAutostart(context, *current, false); !hidden) return std::unexpected(hidden.error());
    } else if (auto changed = setAutostart(context, *current, enabled); !changed) {
        return std::unexpected(changed.error());
    }
    return status(context);
}

std::string describe(const State& state) {
    std::vector<std::string> ways;
    if (state.unitEnabled()) ways.push_back(fmt::format("the systemd user unit {}", unitName));
    if (state.autostartActive && state.autostartEntry)
        ways.push_back(fmt::format("the autostart entry {}", state.autostartEntry->string()));
    if (!ways.empty()) {
        std::string line = "The Quillfort agent starts at login through " + ways.front();
        if (ways.size() > 1) line += " and " + ways.back() + " (the second copy gives way to the first)";
        return line + ".\n";
    }

    std::string line = "The Quillfort agent does not start at login";
    std::vector<std::string> reasons;
    if (state.unitState) reasons.push_back(fmt::format("the systemd user unit {} is {}", unitName, *state.unitState));
    if (state.autostartEntry) {
        reasons.push_back(fmt::format("the autostart entry {} is switched off", state.autostartEntry->string()));
    } else if (!state.unitState) {
        reasons.emplace_back("no systemd user unit and no autostart entry is installed");
    }
    for (std::size_t i = 0; i < reasons.size(); ++i) line += (i == 0 ? ": " : "; ") + reasons[i];
    return line + ".\n";
}

}  // namespace quillfort::LoginItem
