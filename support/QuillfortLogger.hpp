// The loggers every component writes through: a subsystem name, one logger per
// category, and messages as fixed texts with printf-like public placeholders
// ("Queued prompt %{public}s for %{public}s.") that are rendered here and handed
// to the process-wide log sink.
#pragma once

#include <array>
#include <concepts>
#include <filesystem>
#include <span>
#include <string>
#include <string_view>
#include <system_error>
#include <type_traits>

#include <fmt/format.h>

#include "model/EnumTraits.hpp"
#include "platform/Error.hpp"
#include "support/LogSink.hpp"
#include "support/QuillfortLogCategory.hpp"

namespace quillfort {

// Replaces each placeholder of `format` with the next argument's text, in order.
// A placeholder is '%', an optional "{...}" annotation (public, bool, ...),
// optional flags, width and precision, optional length modifiers (h, l, ...)
// and a conversion letter or '@'; a '*' width or precision takes up one
// argument of its own. "%%" gives "%". Text that does not form a placeholder is
// kept as it stands. Missing arguments render as nothing; surplus ones are
// ignored.
[[nodiscard]] std::string renderLogMessage(std::string_view format,
                                           std::span<const std::string> args);

// The text an argument stands for in a message: strings as they are, bool as
// true/false, numbers in decimal, raw-string enumerations by raw string, errors
// by their description, anything else as fmt formats it.
template <class T>
[[nodiscard]] std::string logArgumentText(const T& value) {
    using Value = std::remove_cvref_t<T>;
    if constexpr (std::same_as<Value, bool>) {
        return value ? "true" : "false";
    } else if constexpr (std::is_pointer_v<Value> &&
                         std::same_as<std::remove_cv_t<std::remove_pointer_t<Value>>, char>) {
        return value == nullptr ? std::string("(null)") : std::string(value);
    } else if constexpr (std::is_convertible_v<const Value&, std::string_view>) {
        return std::string(std::string_view(value));
    } else if constexpr (RawStringEnum<Value>) {
        return std::string(rawValue(value));
    } else if constexpr (std::same_as<Value, Error>) {
        return value.description;
    } else if constexpr (std::same_as<Value, std::error_code>) {
        return value.message();
    } else if constexpr (std::same_as<Value, std::filesystem::path>) {
        return value.string();
    } else {
        static_assert(fmt::is_formattable<Value>::value,
                      "log arguments must be text, numbers, bool or formattable by fmt");
        return fmt::format("{}", value);
    }
}

// A logger for one category of the subsystem; cheap to copy, and loggers of the
// same category are interchangeable. Logging never throws and never blocks on
// anything but the sink.
class Logger {
public:
    explicit Logger(QuillfortLogCategory category) noexcept : category_(category) {}

    [[nodiscard]] QuillfortLogCategory category() const noexcept { return category_; }

    // Default level: progress.
    template <class... Args>
    void log(std::string_view format, const Args&... args) const noexcept {
        emit(LogLevel::defaultLevel, format, args...);
    }

    // Error level: failures, usually with the error's description as argument.
    template <class... Args>
    void error(std::string_view format, const Args&... args) const noexcept {
        emit(LogLevel::error, format, args...);
    }

    // Renders and writes one record with arguments already turned into text.
    void write(LogLevel level, std::string_view format,
               std::span<const std::string> args) const noexcept;

    bool operator==(const Logger&) const = default;

private:
    template <class... Args>
    void emit(LogLevel level, std::string_view format, const Args&... args) const noexcept {
        try {
            const std::array<std::string, sizeof...(Args)> texts{logArgumentText(args)...};
            write(level, format, texts);
        } catch (...) {
            // Turning an argument into text failed (out of memory); drop the line.
        }
    }

    QuillfortLogCategory category_;
};

namespace QuillfortLogger {

inline constexpr std::string_view subsystem = "com.vessimo.Quillfort";

// A new logger value for `category` on each call.
[[nodiscard]] Logger logger(QuillfortLogCategory category) noexcept;

}  // namespace QuillfortLogger

}  // namespace quillfort
