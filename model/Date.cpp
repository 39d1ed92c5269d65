#include "model/Date.hpp"

#include <fmt/format.h>

namespace quillfort {
namespace {

bool digits(std::string_view text, std::size_t pos, std::size_t count, int& value) {
    value = 0;
    for (std::size_t i = pos; i < pos + count; ++i) {
        if (i >= text.size() || text[i] < '0' || text[i] > '9') return false;
        value = value * 10 + (text[i] - '0');
    }
    return true;
}

}  // namespace

std::string iso8601String(Date date) {
    using namespace std::chrono;
    auto days = floor<std::chrono::days>(date);
    year_month_day ymd{days};
    hh_mm_ss<seconds> time{date - days};
    return fmt::format("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}Z", static_cast<int>(ymd.year()),
                       static_cast<unsigned>(ymd.month()), static_cast<unsigned>(ymd.day()),
                       time.hours().count(), time.minutes().count(), time.seconds().count());
}

std::optional<Date> parseIso8601(std::string_view text) {
    using namespace std::chrono;
    int y, mo, d, h, mi, s;
    if (text.size() < 20) return std::nullopt;
    if (!digits(text, 0, 4, y) || text[4] != '-' || !digits(text, 5, 2, mo) || text[7] != '-' ||
        !digits(text, 8, 2, d) || text[10] != 'T' || !digits(text, 11, 2, h) || text[13] != ':' ||
        !digits(text, 14, 2, mi) || text[16] != ':' || !digits(text, 17, 2, s))
        return std::nullopt;
    if (h > 23 || mi > 59 || s > 59) return std::nullopt;
    year_month_day ymd{year{y}, month{static_cast<unsigned>(mo)}, day{static_cast<unsigned>(d)}};
    if (!ymd.ok()) return std::nullopt;

    seconds offset{0};
    std::string_view zone = text.substr(19);
    if (zone == "Z") {
    } else if (zone.size() == 6 && (zone[0] == '+' || zone[0] == '-') && zone[3] == ':') {
        int oh, om;
        if (!digits(zone, 1, 2, oh) || !digits(zone, 4, 2, om) || oh > 23 || om > 59) return std::nullopt;
        offset = hours{oh} + minutes{om};
        if (zone[0] == '-') offset = -offset;
    } else {
        return std::nullopt;
    }
    return Date{sys_days{ymd}} + hours{h} + minutes{mi} + seconds{s} - offset;
}

}  // namespace quillfort
