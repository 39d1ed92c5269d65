#include "QuillfortAgent/coordinator/ResolvedAtFormatter.hpp"

#include <array>
#include <clocale>
#include <memory>

#include <langinfo.h>
#include <locale.h>

namespace quillfort::ResolvedAtFormatter {

namespace {

void replaceAll(std::string& text, std::string_view from, std::string_view to) {
    for (std::size_t at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size())) {
        text.replace(at, from.size(), to);
    }
}

struct LocaleDeleter {
    void operator()(locale_t locale) const noexcept { freelocale(locale); }
};
using LocaleHandle = std::unique_ptr<std::remove_pointer_t<locale_t>, LocaleDeleter>;

LocaleHandle openTimeLocale(const std::string& name) {
    if (locale_t locale = newlocale(LC_TIME_MASK, name.c_str(), locale_t{})) return LocaleHandle(locale);
    return LocaleHandle(newlocale(LC_TIME_MASK, "C", locale_t{}));
}

// Opening a locale reads its data files, which cost more than the rest of an
// automated answer; every answer is stamped, so the last one opened is kept
// (per thread, as locale_t objects are not shared between threads here).
locale_t timeLocale(const std::string& name) {
    thread_local std::string openedName;
    thread_local LocaleHandle opened;
    if (!opened || openedName != name) {
        opened = openTimeLocale(name);
        openedName = name;
    }
    return opened.get();
}

}  // namespace

std::string mediumTimePattern(std::string_view timeFormat, std::string_view amPmFormat) {
    std::string pattern(timeFormat.empty() ? std::string_view("%H:%M:%S") : timeFormat);
    // Locales such as en_US spell their time format as "%r", the 12-hour form.
    replaceAll(pattern, "%r", amPmFormat.empty() ? std::string_view("%I:%M:%S %p") : amPmFormat);
    replaceAll(pattern, "%I", "%-I");
    replaceAll(pattern, "%l", "%-l");
    return pattern;
}

std::string format(const std::tm& localTime, const std::string& localeName) {
    const locale_t locale = timeLocale(localeName);
    if (!locale) return {};
    const std::string pattern = mediumTimePattern(nl_langinfo_l(T_FMT, locale), nl_langinfo_l(T_FMT_AMPM, locale));
    std::array<char, 128> buffer{};
    const std::size_t length = strftime_l(buffer.data(), buffer.size(), pattern.c_str(), &localTime, locale);
    return std::string(buffer.data(), length);
}

Formatter userLocaleFormatter() {
    return [](std::chrono::system_clock::time_point time) {
        const std::time_t seconds = std::chrono::system_clock::to_time_t(time);
        std::tm local{};
        if (localtime_r(&seconds, &local) == nullptr) return std::string();
        return format(local);
    };
}

}  // namespace quillfort::ResolvedAtFormatter
