// How the recent-answers list shows when a prompt was answered: the time of
// day in the user's locale, medium style, no date ("3:04:05 PM", "15:04:05").
#pragma once

#include <chrono>
#include <ctime>
#include <functional>
#include <string>
#include <string_view>

namespace quillfort::ResolvedAtFormatter {

using Formatter = std::function<std::string(std::chrono::system_clock::time_point)>;

// A strftime pattern for the medium time style, from a locale's time format
// (LC_TIME's t_fmt) and its 12-hour format (t_fmt_ampm): 12-hour clocks show
// the hour without padding ("3:04:05 PM"), 24-hour clocks keep theirs.
[[nodiscard]] std::string mediumTimePattern(std::string_view timeFormat, std::string_view amPmFormat);

// `localTime` in the medium time style of the locale named `localeName` ("" is
// the user's locale from the environment); the C locale when that locale is
// not installed.
[[nodiscard]] std::string format(const std::tm& localTime, const std::string& localeName = "");

// Converts to the local time zone and formats in the user's locale.
[[nodiscard]] Formatter userLocaleFormatter();

}  // namespace quillfort::ResolvedAtFormatter
