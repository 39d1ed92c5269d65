#include "platform/ProcessInfo.hpp"

#include <unistd.h>

extern char** environ;

namespace quillfort {

std::optional<std::string> ProcessInfo::environmentValue(const std::string& name) const {
    if (auto it = environment.find(name); it != environment.end()) return it->second;
    return std::nullopt;
}

ProcessInfo ProcessInfo::current(int argc, char** argv) {
    ProcessInfo info;
    for (char** entry = environ; entry != nullptr && *entry != nullptr; ++entry) {
        std::string_view text(*entry);
        auto eq = text.find('=');
        if (eq == std::string_view::npos) continue;
        info.environment.emplace(std::string(text.substr(0, eq)), std::string(text.substr(eq + 1)));
    }
    for (int i = 0; i < argc; ++i) info.arguments.emplace_back(argv[i]);
    info.processIdentifier = static_cast<int>(::getpid());
    return info;
}

}  // namespace quillfort
