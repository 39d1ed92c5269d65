// Points in time as the system exchanges them: whole seconds, UTC, written as
// ISO 8601 internet date-time text with "Z" (2026-03-01T12:00:00Z).
#pragma once

#include <chrono>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>

namespace quillfort {

using Date = std::chrono::sys_seconds;

[[nodiscard]] inline Date dateFrom(std::chrono::system_clock::time_point time) {
    return std::chrono::floor<std::chrono::seconds>(time);
}

[[nodiscard]] std::string iso8601String(Date date);
// Accepts "YYYY-MM-DDTHH:MM:SSZ" and numeric offsets ("+01:00"); nothing else.
[[nodiscard]] std::optional<Date> parseIso8601(std::string_view text);

}  // namespace quillfort

namespace std::chrono {
// Readable test failure messages for dates.
inline std::ostream& operator<<(std::ostream& out, const quillfort::Date& date) {
    return out << quillfort::iso8601String(date);
}
}  // namespace std::chrono
