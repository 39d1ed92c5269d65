#include "support/QuillfortLogger.hpp"

#include <chrono>
#include <cstddef>
#include <optional>

namespace quillfort {

namespace {

bool isAsciiLetter(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }
bool isDigit(char c) { return c >= '0' && c <= '9'; }

// Reads one placeholder starting just after its '%'. Returns the index one past
// its conversion character and counts the arguments it takes up, or nothing
// when the text there is not a placeholder.
std::optional<std::size_t> parsePlaceholder(std::string_view format, std::size_t index,
                                            std::size_t& argumentsTaken) {
    const auto at = [&](std::size_t i) { return i < format.size() ? format[i] : '\0'; };
    argumentsTaken = 1;
    if (at(index) == '{') {
        const auto close = format.find('}', index + 1);
        if (close == std::string_view::npos) return std::nullopt;
        index = close + 1;
    }
    while (at(index) == '-' || at(index) == '+' || at(index) == '#' || at(index) == '0' ||
           at(index) == '\'') {
        ++index;
    }
    if (at(index) == '*') {
        ++argumentsTaken;
        ++index;
    } else {
        while (isDigit(at(index))) ++index;
    }
    if (at(index) == '.') {
        ++index;
        if (at(index) == '*') {
            ++argumentsTaken;
            ++index;
        } else {
            while (isDigit(at(index))) ++index;
        }
    }
    while (at(index) == 'h' || at(index) == 'l' || at(index) == 'q' || at(index) == 'L' ||
           at(index) == 'z' || at(index) == 't' || at(index) == 'j') {
        ++index;
    }
    const char conversion = at(index);
    if (!isAsciiLetter(conversion) && conversion != '@') return std::nullopt;
    return index + 1;
}

}  // namespace

std::string renderLogMessage(std::string_view format, std::span<const std::string> args) {
    std::string out;
    out.reserve(format.size() + 32);
    std::size_t nextArgument = 0;
    std::size_t index = 0;
    while (index < format.size()) {
        const auto percent = format.find('%', index);
        if (percent == std::string_view::npos) {
            out.append(format.substr(index));
            break;
        }
        out.append(format.substr(index, percent - index));
        if (percent + 1 < format.size() && format[percent + 1] == '%') {
            out.push_back('%');
            index = percent + 2;
            continue;
        }
        std::size_t taken = 0;
        const auto end = parsePlaceholder(format, percent + 1, taken);
        if (!end) {
            out.push_back('%');
            index = percent + 1;
            continue;
        }
        // A '*' width or precision consumes its argument before the value's own.
        nextArgument += taken - 1;
        if (nextArgument < args.size()) out.append(args[nextArgument]);
        ++nextArgument;
        index = *end;
    }
    return out;
}

void Logger::write(LogLevel level, std::string_view format,
                   std::span<const std::string> args) const noexcept {
    try {
        LogRecord record{
            .time = std::chrono::system_clock::now(),
            .subsystem = std::string(QuillfortLogger::subsystem),
            .category = std::string(rawValue(category_)),
            .level = level,
            .message = renderLogMessage(format, args),
        };
        if (auto sink = currentLogSink()) sink->write(record);
    } catch (...) {
        // Logging must never disturb the caller.
    }
}

namespace QuillfortLogger {

Logger logger(QuillfortLogCategory category) noexcept { return Logger(category); }

}  // namespace QuillfortLogger

}  // namespace quillfort
