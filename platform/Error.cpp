#include "platform/Error.hpp"

#include <cstring>

#include <fmt/format.h>

namespace quillfort {

Error Error::fromErrno(int err, std::string_view path) {
    std::error_code code(err, std::generic_category());
    return Error{code, fmt::format("{}: {}", code.message(), path)};
}

Error Error::withMessage(std::string description) {
    return Error{std::error_code{}, std::move(description)};
}

}  // namespace quillfort
