#include "model/Uuid.hpp"

#include <gtest/gtest.h>

#include "model/Json.hpp"

namespace quillfort {
namespace {

constexpr std::string_view kUpper = "6BA7B810-9DAD-11D1-80B4-00C04FD430C8";

TEST(Uuid, ParsesEitherCaseAndWritesUpperCase) {
    for (std::string_view text : {kUpper, std::string_view("6ba7b810-9dad-11d1-80b4-00c04fd430c8"),
                                  std::string_view("6bA7b810-9DaD-11d1-80B4-00c04Fd430C8")}) {
        auto uuid = Uuid::parse(text);
        ASSERT_TRUE(uuid) << text;
        EXPECT_EQ(uuid->uppercaseString(), kUpper);
        EXPECT_EQ(uuid->bytes[15], 0xC8);
        EXPECT_EQ(encodeCompact(*uuid), "\"" + std::string(kUpper) + "\"");
    }
}

TEST(Uuid, RejectsAnythingButTheCanonicalForm) {
    for (std::string_view text : {
             "", "6BA7B8109DAD11D180B400C04FD430C8", "6BA7B810-9DAD-11D1-80B4-00C04FD430C81",
             "6BA7B8109-DAD-11D1-80B4-00C04FD430C8", "6BA7B810-9DAD-11D1-80B4_00C04FD430C8",
             "6BA7B810-9DAD-11D1-80B4-00C04FD430CG", " 6BA7B810-9DAD-11D1-80B4-00C04FD430C",
             "6BA7B810-9DAD-11D1-80B4-00C04FD4+0C8",
         }) {
        EXPECT_EQ(Uuid::parse(text), std::nullopt) << text;
    }
}

TEST(Uuid, RandomIdentifiersAreVersionFourAndDiffer) {
    for (const auto make : {&Uuid::random, &Uuid::unique}) {
        const Uuid first = make();
        EXPECT_EQ(first.bytes[6] >> 4, 4);
        EXPECT_EQ(first.bytes[8] >> 6, 0b10);
        EXPECT_NE(make(), first);
    }
}

}  // namespace
}  // namespace quillfort
