#include "model/Bytes.hpp"

#include <gtest/gtest.h>

namespace quillfort {
namespace {

TEST(Bytes, Base64UsesTheStandardAlphabetWithPadding) {
    struct Case {
        Bytes bytes;
        std::string_view text;
    };
    const Case cases[] = {
        {Bytes{}, ""},
        {Bytes{'f'}, "Zg=="},
        {Bytes{'f', 'o'}, "Zm8="},
        {Bytes{'f', 'o', 'o'}, "Zm9v"},
        {Bytes{'f', 'o', 'o', 'b', 'a', 'r'}, "Zm9vYmFy"},
        {Bytes{0xFB, 0xFF}, "+/8="},
        {Bytes{0x00, 0x00, 0x00}, "AAAA"},
        {Bytes{0xFF, 0xFF, 0xFF, 0xFF}, "/////w=="},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(c.bytes.base64(), c.text);
        EXPECT_EQ(Bytes::fromBase64(c.text), c.bytes) << c.text;
    }
    Bytes all;
    for (int i = 0; i < 256; ++i) all.value.push_back(static_cast<std::uint8_t>(i));
    EXPECT_EQ(Bytes::fromBase64(all.base64()), all);
}

TEST(Bytes, DecodingIsStrict) {
    for (std::string_view text : {
             "Zg", "Zg=", "Zm9vY", "Z===", "====", "=Zg=", "Zg=a", "Zg==Zg==", "Zm9v\n", " Zm9v", "Zm9v ",
             "Zm-_", "Zm9v!A==", "Zm 9v",
         }) {
        EXPECT_EQ(Bytes::fromBase64(text), std::nullopt) << text;
    }
    EXPECT_EQ(Bytes::fromBase64(std::string_view("Zm9\0", 4)), std::nullopt);  // NUL is no digit either
}

}  // namespace
}  // namespace quillfort
