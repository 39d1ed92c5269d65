#include "platform/FileUserDefaults.hpp"

#include <boost/json.hpp>

namespace quillfort {

namespace {

boost::json::object readObject(const FileSystem& fileSystem, const std::filesystem::path& location) {
    auto bytes = fileSystem.readFile(location);
    if (!bytes) return {};
    boost::system::error_code error;
    boost::json::value parsed = boost::json::parse(*bytes, error);
    if (error || !parsed.is_object()) return {};
    return std::move(parsed.as_object());
}

VoidResult writeObject(FileSystem& fileSystem, const std::filesystem::path& location,
                       const boost::json::object& object) {
    if (location.has_parent_path()) {
        if (auto made = fileSystem.createDirectories(location.parent_path()); !made) return made;
    }
    return fileSystem.writeFileAtomically(location, boost::json::serialize(object));
}

}  // namespace

FileUserDefaults::FileUserDefaults(std::shared_ptr<FileSystem> fileSystem, std::filesystem::path location)
    : fileSystem_(std::move(fileSystem)), location_(std::move(location)) {}

std::optional<std::filesystem::path> FileUserDefaults::standardLocation(const ProcessInfo& processInfo,
                                                                        const FileSystem& fileSystem) {
    std::optional<std::filesystem::path> configHome;
    // Relative values are invalid for this variable and are ignored.
    if (auto value = processInfo.environmentValue("XDG_CONFIG_HOME");
        value && std::filesystem::path(*value).is_absolute()) {
        configHome = std::filesystem::path(*value);
    } else if (auto home = fileSystem.currentHomeDirectory()) {
        configHome = *home / ".config";
    }
    if (!configHome) return std::nullopt;
    return *configHome / "quillfort" / "defaults.json";
}

std::optional<std::string> FileUserDefaults::string(std::string_view key) const {
    auto object = readObject(*fileSystem_, location_);
    auto* value = object.if_contains(key);
    if (value == nullptr || !value->is_string()) return std::nullopt;
    return std::string(value->get_string());
}

std::optional<std::string> FileUserDefaults::data(std::string_view key) const {
    return string(key);
}

VoidResult FileUserDefaults::setString(std::string_view key, std::string_view value) {
    if (auto storable = checkStorable(key, value); !storable) return storable;
    std::lock_guard lock(writeMutex_);
    auto object = readObject(*fileSystem_, location_);
    object[key] = value;
    return writeObject(*fileSystem_, location_, object);
}

VoidResult FileUserDefaults::setData(std::string_view key, std::string_view bytes) {
    return setString(key, bytes);
}

VoidResult FileUserDefaults::remove(std::string_view key) {
    std::lock_guard lock(writeMutex_);
    auto object = readObject(*fileSystem_, location_);
    if (object.erase(key) == 0) return {};
    return writeObject(*fileSystem_, location_, object);
}

}  // namespace quillfort
