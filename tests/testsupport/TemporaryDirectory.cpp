#include "tests/testsupport/TemporaryDirectory.hpp"

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

}  // namespace quillfort::testing
