// Errors that operations report to their callers as values: the code they came
// from (errno for the file system) and a description that reaches users.
#pragma once

#include <expected>
#include <string>
#include <string_view>
#include <system_error>

namespace quillfort {

struct Error {
    std::error_code code;     // empty for errors that have no system code (decoding)
    std::string description;  // the localised description shown in logs and messages

    [[nodiscard]] bool isNoSuchFile() const noexcept {
        return code == std::errc::no_such_file_or_directory;
    }
    bool operator==(const Error&) const = default;

    // An errno value for an operation on `path`: "<system text>: <path>".
    [[nodiscard]] static Error fromErrno(int err, std::string_view path);
    [[nodiscard]] static Error withMessage(std::string description);
};

template <class T>
using Result = std::expected<T, Error>;
using VoidResult = std::expected<void, Error>;

}  // namespace quillfort
