#include "QuillfortAgent/ResolvedAtFormatter.hpp"

#include <gtest/gtest.h>

namespace quillfort {
namespace {

std::tm afternoon() {
    std::tm time{};
    time.tm_year = 126;
    time.tm_mon = 2;
    time.tm_mday = 1;
    time.tm_hour = 15;
    time.tm_min = 4;
    time.tm_sec = 5;
    return time;
}

TEST(ResolvedAtFormatter, TwelveHourClocksDropTheHourPadding) {
    EXPECT_EQ(ResolvedAtFormatter::mediumTimePattern("%r", "%I:%M:%S %p"), "%-I:%M:%S %p");
    EXPECT_EQ(ResolvedAtFormatter::mediumTimePattern("%T", "%I:%M:%S %p"), "%T");
    EXPECT_EQ(ResolvedAtFormatter::mediumTimePattern("%H:%M:%S", ""), "%H:%M:%S");
}

TEST(ResolvedAtFormatter, FormatsInTheNamedLocaleFallingBackToC) {
    EXPECT_EQ(ResolvedAtFormatter::format(afternoon(), "C"), "15:04:05");
    EXPECT_EQ(ResolvedAtFormatter::format(afternoon(), "xx_NOWHERE.UTF-8"), "15:04:05");
}

}  // namespace
}  // namespace quillfort
