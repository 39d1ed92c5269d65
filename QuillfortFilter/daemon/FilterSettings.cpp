#include "QuillfortFilter/daemon/FilterSettings.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fmt/format.h>

#include "contracts/QuillfortFilterConfigurationFile.hpp"
#include "platform/FileDescriptor.hpp"

namespace quillfort {

namespace {

// A configuration is a few keys; a larger file is not one.
constexpr std::size_t maximumConfigurationBytes = 64u * 1024u * 1024u;

}  // namespace

FilterSettings FilterSettings::from(const PropertyListDictionary& dictionary, const FilterOptions& options,
                                    std::vector<std::string>& problems) {
    namespace C = QuillfortFilterVendorConfiguration;
    FilterSettings settings;
    const std::optional<PropertyListDictionary> configuration(dictionary);
    auto stringAt = [&](std::string_view key) -> std::optional<std::string> {
        auto found = dictionary.find(std::string(key));
        if (found == dictionary.end()) return std::nullopt;
        if (const auto* text = std::get_if<std::string>(&found->second)) return *text;
        problems.push_back(fmt::format("\"{}\" is not a string", key));
        return std::nullopt;
    };
    auto boolAt = [&](std::string_view key) -> std::optional<bool> {
        auto found = dictionary.find(std::string(key));
        if (found == dictionary.end()) return std::nullopt;
        if (const auto* flag = std::get_if<bool>(&found->second)) return *flag;
        problems.push_back(fmt::format("\"{}\" is not a boolean", key));
        return std::nullopt;
    };

    if (auto mode = stringAt(C::modeKey)) {
        if (auto parsed = fromRawValue<FlowFilterMode>(*mode))
            settings.mode = *parsed;
        else
            problems.push_back(fmt::format("\"mode\" is \"{}\", neither monitor nor enforce", *mode));
    }
    if (auto unknown = stringAt(C::unknownTrafficModeKey)) {
        if (auto parsed = C::decodedUnknownTrafficMode(configuration))
            settings.unknownTrafficMode = *parsed;
        else
            problems.push_back(fmt::format("\"unknownTrafficMode\" is \"{}\", not alerting, permissive or blocking",
                                           *unknown));
    }
    if (stringAt(C::ruleSnapshotJSONKey)) {
        settings.configurationSnapshot = C::decodedRuleSnapshot(configuration);
        if (!settings.configurationSnapshot) problems.push_back("\"ruleSnapshotJSON\" does not hold a rule snapshot");
    }
    settings.automation = C::decodedPromptAutomationDirective(configuration);
    if (auto shadow = boolAt(C::shadowPromptDropEnabledKey)) settings.shadowPromptDrop = *shadow;
    if (auto bootstrap = boolAt(FilterConfigurationKeys::bootstrapAllowlistEnabled))
        settings.bootstrapAllowlist = *bootstrap;
    settings.consoleHome = C::decodedConsoleUserHomeDirectoryPath(configuration);

    if (options.mode) settings.mode = *options.mode;
    if (options.unknownTrafficMode) settings.unknownTrafficMode = *options.unknownTrafficMode;
    return settings;
}

Result<PropertyListDictionary> readConfigurationFile(const std::filesystem::path& file) {
    FileDescriptor fd(::open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (!fd) {
        if (errno == ENOENT) return PropertyListDictionary{};
        return std::unexpected(Error::fromErrno(errno, file.native()));
    }
    struct stat status {};
    if (::fstat(fd.get(), &status) != 0) return std::unexpected(Error::fromErrno(errno, file.native()));
    if (!S_ISREG(status.st_mode)) return std::unexpected(Error::withMessage(file.string() + " is not a regular file"));
    if (static_cast<std::size_t>(status.st_size) > maximumConfigurationBytes)
        return std::unexpected(Error::withMessage(file.string() + " is too large to be a configuration"));
    std::string content(static_cast<std::size_t>(status.st_size), '\0');
    std::size_t read = 0;
    while (read < content.size()) {
        const ssize_t count = ::read(fd.get(), content.data() + read, content.size() - read);
        if (count < 0 && errno == EINTR) continue;
        if (count <= 0) break;
        read += static_cast<std::size_t>(count);
    }
    content.resize(read);
    auto dictionary = QuillfortFilterConfigurationFile::decode(content);
    if (!dictionary)
        return std::unexpected(Error::withMessage(fmt::format("{}: {}", file.string(), dictionary.error().description)));
    return dictionary;
}

}  // namespace quillfort
