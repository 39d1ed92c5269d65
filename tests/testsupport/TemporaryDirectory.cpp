#include "tests/testsupport/TemporaryDirectory.hpp"

#include <sys/stat.h>

#include <fstream>
#include <iterator>

#include <cerrno>
#include <cstdlib>
#include <string>
#include <system_error>

namespace quillfort::testing {

TemporaryDirectory::TemporaryDirectory() {
    std::string pattern = "/tmp/quillfort-test-XXXXXX";
    if (::mkdtemp(pattern.data()) == nullptr) {
        throw std::system_error(errno, std::generic_category(), "mkdtemp " + pattern);
    }
    path_ = pattern;
}

TemporaryDirectory::~TemporaryDirectory() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

std::optional<std::string> readText(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) return std::nullopt;
    return std::string(std::istreambuf_iterator<char>(in), {});
}

void writeText(const std::filesystem::path& path, std::string_view text) {
    std::filesystem::create_directories(path.parent_path());
    std::ofstream(path, std::ios::binary) << text;
}

unsigned permissionsOf(const std::filesystem::path& path) {
    struct stat info{};
    return ::stat(path.c_str(), &info) == 0 ? info.st_mode & 07777 : 0;
}

}  // namespace quillfort::testing
