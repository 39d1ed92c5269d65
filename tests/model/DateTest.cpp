#include "model/Date.hpp"

#include <gtest/gtest.h>

namespace quillfort {
namespace {

using namespace std::chrono;

Date utc(int y, unsigned mo, unsigned d, int h = 0, int mi = 0, int s = 0) {
    return Date{sys_days{year{y} / month{mo} / day{d}}} + hours{h} + minutes{mi} + seconds{s};
}

TEST(Date, ParsesUtcAndNumericOffsets) {
    struct Case {
        std::string_view text;
        Date expected;
    };
    const Case cases[] = {
        {"2026-03-01T12:00:00Z", utc(2026, 3, 1, 12)},
        {"2026-03-01T13:00:00+01:00", utc(2026, 3, 1, 12)},
        {"2026-03-01T06:30:00-05:30", utc(2026, 3, 1, 12)},
        {"2026-03-01T00:30:00+01:00", utc(2026, 2, 28, 23, 30)},
        {"2024-02-29T23:59:59Z", utc(2024, 2, 29, 23, 59, 59)},
        {"1970-01-01T00:00:00Z", Date{}},
        {"1969-12-31T23:59:59Z", Date{} - seconds{1}},
    };
    for (const auto& c : cases) EXPECT_EQ(parseIso8601(c.text), c.expected) << c.text;
}

TEST(Date, RejectsInvalidDatesAndOtherForms) {
    for (std::string_view text : {
             "", "2026-03-01", "2026-03-01T12:00:00", "2026-03-01T12:00Z", "2026-03-01T12:00:00.250Z",
             "2026-03-01T12:00:00+0100", "2026-03-01T12:00:00+01", "2026-03-01T12:00:00+24:00",
             "2026-03-01T12:00:00 Z", "2026-03-01T12:00:00ZZ", "2026-13-01T00:00:00Z", "2026-04-31T00:00:00Z",
             "2026-02-29T00:00:00Z", "2026-03-01T24:00:00Z", "2026-03-01T12:60:00Z", "2026-03-01T12:00:60Z",
             "26-03-01T12:00:00Z", "2026-03-01T12:00:00z",
         }) {
        EXPECT_EQ(parseIso8601(text), std::nullopt) << text;
    }
}

TEST(Date, WritesWholeSecondsInUtc) {
    EXPECT_EQ(iso8601String(utc(2026, 3, 1, 12)), "2026-03-01T12:00:00Z");
    EXPECT_EQ(iso8601String(utc(2024, 2, 29, 7, 5, 9)), "2024-02-29T07:05:09Z");
    EXPECT_EQ(iso8601String(Date{} - seconds{1}), "1969-12-31T23:59:59Z");
    EXPECT_EQ(iso8601String(utc(9999, 12, 31, 23, 59, 59)), "9999-12-31T23:59:59Z");
}

TEST(Date, DropsFractionsOfASecondTowardsThePast) {
    auto instant = system_clock::time_point{utc(2026, 3, 1, 12).time_since_epoch()} + milliseconds{999};
    EXPECT_EQ(dateFrom(instant), utc(2026, 3, 1, 12));
    EXPECT_EQ(dateFrom(system_clock::time_point{} - milliseconds{1}), Date{} - seconds{1});
}

}  // namespace
}  // namespace quillfort
