#include "QuillfortAgent/coordinator/ResolvedAtFormatter.hpp"

#include <gtest/gtest.h>

namespace quillfort {
namespace {

std::tm afternoon() {
    std::tm time{};
    EXPECT_TRUE(::strptime("2026-03-01 15:04:05", "%Y-%m-%d %H:%M:%S", &time));
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
