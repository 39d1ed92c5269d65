#include "QuillfortFilter/process/ProcessTags.hpp"

#include <algorithm>
#include <filesystem>
#include <array>
#include <string_view>

#include "model/Text.hpp"

namespace quillfort::ProcessTags {

namespace {

using namespace std::string_view_literals;

constexpr std::array terminals{
    "gnome-terminal-server"sv, "gnome-terminal"sv, "kgx"sv, "ptyxis"sv, "konsole"sv, "xterm"sv, "uxterm"sv,
    "alacritty"sv, "kitty"sv, "foot"sv, "footclient"sv, "xfce4-terminal"sv, "tilix"sv, "terminator"sv,
    "wezterm-gui"sv, "wezterm"sv, "urxvt"sv, "rxvt"sv, "st"sv, "lxterminal"sv, "mate-terminal"sv,
    "qterminal"sv, "sakura"sv, "terminology"sv, "tmux"sv, "screen"sv, "ghostty"sv,
};
constexpr std::array shells{"bash"sv, "sh"sv, "dash"sv, "zsh"sv, "fish"sv, "ksh"sv, "mksh"sv,
                            "tcsh"sv, "csh"sv, "ash"sv, "busybox"sv, "nu"sv, "elvish"sv};
constexpr std::array sshPrograms{"ssh"sv, "scp"sv, "sftp"sv, "autossh"sv, "mosh-client"sv};
constexpr std::array scriptInterpreters{"perl"sv, "ruby"sv};

template <std::size_t N>
bool among(const std::array<std::string_view, N>& names, std::string_view name) {
    return std::find(names.begin(), names.end(), name) != names.end();
}

// "python3.11", "python3", "python" and the like.
bool isPython(std::string_view name) {
    if (!name.starts_with("python")) return false;
    return std::all_of(name.begin() + 6, name.end(), [](char c) { return (c >= '0' && c <= '9') || c == '.'; });
}

bool isNode(std::string_view name) { return name == "node" || name == "nodejs"; }

bool isJava(std::string_view name) { return name == "java"; }

bool argumentsContain(const ProcessIdentity& identity, std::string_view fragment) {
    return std::any_of(identity.argv.begin(), identity.argv.end(),
                       [fragment](const std::string& argument) { return argument.find(fragment) != std::string::npos; });
}

}  // namespace

std::set<ProcessTag> classify(const ProcessIdentity& identity) {
    std::set<ProcessTag> tags;
    const std::string_view name = text::lastPathComponent(identity.executablePath);
    if (among(terminals, name)) tags.insert(ProcessTag::terminal);
    if (name == "warp" || name == "warp-terminal" || name == "warp-terminal-preview") tags.insert(ProcessTag::warp);
    if (among(shells, name)) tags.insert(ProcessTag::shell);
    if (isNode(name)) tags.insert(ProcessTag::node);
    if (isPython(name)) tags.insert(ProcessTag::python);
    if (name == "git" || name.starts_with("git-")) tags.insert(ProcessTag::git);
    if (among(sshPrograms, name)) tags.insert(ProcessTag::ssh);
    if (isJava(name)) {
        if (argumentsContain(identity, "org.gradle.wrapper.GradleWrapperMain")) tags.insert(ProcessTag::gradleWrapper);
        if (argumentsContain(identity, "org.gradle.launcher.daemon.bootstrap.GradleDaemon"))
            tags.insert(ProcessTag::gradleDaemon);
        if (argumentsContain(identity, "org.gradle.")) tags.insert(ProcessTag::javaGradle);
    }
    // The wrapper script itself, before it starts the JVM.
    if (identity.scriptPath && text::lastPathComponent(*identity.scriptPath) == "gradlew")
        tags.insert(ProcessTag::gradleWrapper);
    return tags;
}

void inherit(ProcessNode& process, std::vector<ProcessNode>& ancestors) {
    std::set<ProcessTag> above;
    for (auto ancestor = ancestors.rbegin(); ancestor != ancestors.rend(); ++ancestor) {
        ancestor->tags.insert(above.begin(), above.end());
        above = ancestor->tags;
    }
    process.tags.insert(above.begin(), above.end());
}

std::optional<std::string> scriptPath(const ProcessIdentity& identity) {
    const std::string_view name = text::lastPathComponent(identity.executablePath);
    if (!isPython(name) && !isNode(name) && !among(shells, name) && !among(scriptInterpreters, name))
        return std::nullopt;
    for (std::size_t index = 1; index < identity.argv.size(); ++index) {
        const std::string& argument = identity.argv[index];
        if (argument == "-c" || argument == "-e" || argument == "-m" || argument == "--eval" || argument == "-")
            return std::nullopt;  // code given inline or a module, not a file
        if (argument.empty() || argument.front() == '-') continue;
        if (argument.front() == '/' || !identity.cwd) return argument;
        return (std::filesystem::path(*identity.cwd) / argument).lexically_normal().string();
    }
    return std::nullopt;
}

}  // namespace quillfort::ProcessTags
