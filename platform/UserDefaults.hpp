// The per-user store of small named settings that outlive the process: the
// remembered prompt preference and the preview settings of automated runs.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "platform/Error.hpp"

namespace quillfort {

// Values are text: `setData` takes bytes that are themselves UTF-8 (JSON
// texts); keys and values that are not UTF-8 are refused with EILSEQ so a
// stored value can always be read back.
class UserDefaults {
public:
    virtual ~UserDefaults() = default;

    // The value under `key` when it is a string; anything else counts as absent.
    [[nodiscard]] virtual std::optional<std::string> string(std::string_view key) const = 0;
    // The bytes stored under `key` with `setData`.
    [[nodiscard]] virtual std::optional<std::string> data(std::string_view key) const = 0;

    [[nodiscard]] virtual VoidResult setString(std::string_view key, std::string_view value) = 0;
    [[nodiscard]] virtual VoidResult setData(std::string_view key, std::string_view bytes) = 0;
    // Removing an absent key succeeds.
    [[nodiscard]] virtual VoidResult remove(std::string_view key) = 0;

protected:
    // Fails with EILSEQ when the key or the value is not valid UTF-8.
    [[nodiscard]] static VoidResult checkStorable(std::string_view key, std::string_view value);
};

// The running user's defaults file (see FileUserDefaults::standardLocation);
// an in-memory store when the user has no home to keep a file in.
[[nodiscard]] std::shared_ptr<UserDefaults> standardUserDefaults();

}  // namespace quillfort
