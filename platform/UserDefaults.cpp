#include "platform/UserDefaults.hpp"

#include <fmt/format.h>

#include "platform/FileUserDefaults.hpp"
#include "platform/InMemoryUserDefaults.hpp"
#include "platform/ProcessInfo.hpp"

namespace quillfort {

namespace {

// Strict UTF-8: no overlong forms, no surrogates, nothing above U+10FFFF.
bool isValidUtf8(std::string_view text) {
    std::size_t i = 0;
    while (i < text.size()) {
        auto lead = static_cast<unsigned char>(text[i]);
        std::size_t length = 0;
        unsigned lowest = 0;
        unsigned long codePoint = 0;
        if (lead < 0x80) {
            ++i;
            continue;
        } else if ((lead & 0xE0) == 0xC0) {
            length = 2, lowest = 0x80, codePoint = lead & 0x1F;
        } else if ((lead & 0xF0) == 0xE0) {
            length = 3, lowest = 0x800, codePoint = lead & 0x0F;
        } else if ((lead & 0xF8) == 0xF0) {
            length = 4, lowest = 0x10000, codePoint = lead & 0x07;
        } else {
            return false;
        }
        if (text.size() - i < length) return false;
        for (std::size_t k = 1; k < length; ++k) {
            auto next = static_cast<unsigned char>(text[i + k]);
            if ((next & 0xC0) != 0x80) return false;
            codePoint = (codePoint << 6) | (next & 0x3F);
        }
        if (codePoint < lowest || codePoint > 0x10FFFF || (codePoint >= 0xD800 && codePoint <= 0xDFFF)) {
            return false;
        }
        i += length;
    }
    return true;
}

}  // namespace

VoidResult UserDefaults::checkStorable(std::string_view key, std::string_view value) {
    if (!isValidUtf8(key)) {
        return std::unexpected(Error{std::make_error_code(std::errc::illegal_byte_sequence),
                                     "A user-defaults key is not UTF-8 text"});
    }
    if (!isValidUtf8(value)) {
        return std::unexpected(Error{std::make_error_code(std::errc::illegal_byte_sequence),
                                     fmt::format("The value for the user-defaults key \"{}\" is not UTF-8 text", key)});
    }
    return {};
}

std::shared_ptr<UserDefaults> standardUserDefaults() {
    static const std::shared_ptr<UserDefaults> defaults = []() -> std::shared_ptr<UserDefaults> {
        auto fileSystem = defaultFileSystem();
        if (auto location = FileUserDefaults::standardLocation(ProcessInfo::current(), *fileSystem)) {
            return std::make_shared<FileUserDefaults>(fileSystem, *location);
        }
        return std::make_shared<InMemoryUserDefaults>();
    }();
    return defaults;
}

}  // namespace quillfort
