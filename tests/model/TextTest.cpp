#include "model/Text.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace quillfort {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

TEST(Text, TrimmedRemovesAsciiAndUnicodeBlanks) {
    struct Case {
        std::string_view text, expected;
    };
    const Case cases[] = {
        {"  a b  ", "a b"},
        {"\t\n\v\f\r a \r\n", "a"},
        {"", ""},
        {" \t\n ", ""},
        {"\u00A0x\u3000", "x"},
        {"\u0085\u1680\u2000\u200Ax\u2028\u2029\u202F\u205F", "x"},
        {"\u00A0", ""},
        {"\u00A0 \u3000", ""},
        {"é", "é"},
        {"x\u2010", "x\u2010"},     // a hyphen, not a blank, though it shares its first bytes with U+2000
        {"\u200Bx\u200B", "\u200Bx\u200B"},  // zero width space is not white space
        {"a\u00A0b", "a\u00A0b"},
        {"x\xC2", "x\xC2"},        // a cut-off sequence is kept, not read past the end
    };
    for (const auto& c : cases) EXPECT_EQ(text::trimmed(c.text), c.expected) << c.text;
}

TEST(Text, ValidUtf8ReplacesEachIllFormedSubpart) {
    struct Case {
        std::string_view bytes, expected;
    };
    const Case cases[] = {
        {"plain é ü \u20AC \U0001F600", "plain é ü \u20AC \U0001F600"},
        {"a\xff" "b", "a\uFFFDb"},
        {"\x80\xBF", "\uFFFD\uFFFD"},              // lone continuation bytes
        {"\xE2\x82", "\uFFFD"},                     // cut-off sequence: one replacement
        {"\xE2\x82x", "\uFFFDx"},
        {"\xC0\xAF", "\uFFFD\uFFFD"},              // overlong "/"
        {"\xE0\x80\xAF", "\uFFFD\uFFFD\uFFFD"},    // overlong, three bytes
        {"\xED\xA0\x80", "\uFFFD\uFFFD\uFFFD"},    // a surrogate
        {"\xF4\x90\x80\x80", "\uFFFD\uFFFD\uFFFD\uFFFD"},  // above U+10FFFF
        {"\xF0\x9F\x98", "\uFFFD"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(text::validUtf8(c.bytes), c.expected) << c.bytes;
        EXPECT_EQ(text::isValidUtf8(c.bytes), c.bytes == c.expected) << c.bytes;
    }
}

TEST(Text, ParseUInt16AcceptsOnlyPlainDecimals) {
    struct Case {
        std::string_view text;
        std::optional<std::uint16_t> expected;
    };
    const Case cases[] = {
        {"443", 443},   {"+443", 443},        {"0", 0},          {"007", 7},          {"65535", 65535},
        {"65536", {}},  {"70000", {}},        {"-1", {}},        {"-0", {}},          {"", {}},
        {"+", {}},      {"++1", {}},          {" 1", {}},        {"1 ", {}},          {"0x10", {}},
        {"1e3", {}},    {"44.3", {}},         {"99999999999999999999", {}},
    };
    for (const auto& c : cases) EXPECT_EQ(text::parseUInt16(c.text), c.expected) << '"' << c.text << '"';
}

TEST(Text, ParseInt64CoversTheWholeRange) {
    struct Case {
        std::string_view text;
        std::optional<std::int64_t> expected;
    };
    const Case cases[] = {
        {"0", 0}, {"-17", -17}, {"+17", 17}, {"9223372036854775807", INT64_MAX},
        {"-9223372036854775808", INT64_MIN}, {"9223372036854775808", {}}, {"-9223372036854775809", {}},
        {"18446744073709551616", {}}, {"-", {}}, {"", {}}, {"--1", {}}, {"+-1", {}}, {"1.0", {}}, {" 5", {}},
    };
    for (const auto& c : cases) EXPECT_EQ(text::parseInt64(c.text), c.expected) << '"' << c.text << '"';
}

TEST(Text, NormalizedHostTrimsBracketsAndFoldsCase) {
    struct Case {
        std::string_view host, expected;
    };
    const Case cases[] = {
        {"API.Example.COM", "api.example.com"},
        {" \tExample.com\n", "example.com"},
        {"[::1]", "::1"},
        {" [FE80::1] ", "fe80::1"},
        {"[[x]]", "x"},
        {"[]", ""},
        {"", ""},
        {"ÄPI.example", "Äpi.example"},  // only ASCII letters are folded
    };
    for (const auto& c : cases) EXPECT_EQ(text::normalizedHost(c.host), c.expected) << c.host;
}

TEST(Text, SplitNonEmptyDropsEmptyPieces) {
    EXPECT_THAT(text::splitNonEmpty("a,,b,", ','), ElementsAre("a", "b"));
    EXPECT_THAT(text::splitNonEmpty(",a", ','), ElementsAre("a"));
    EXPECT_THAT(text::splitNonEmpty("abc", ','), ElementsAre("abc"));
    EXPECT_THAT(text::splitNonEmpty(" , ", ','), ElementsAre(" ", " "));
    EXPECT_THAT(text::splitNonEmpty("", ','), IsEmpty());
    EXPECT_THAT(text::splitNonEmpty(",,,", ','), IsEmpty());
}

TEST(Text, LastPathComponent) {
    struct Case {
        std::string_view path, expected;
    };
    const Case cases[] = {
        {"/usr/bin/curl", "curl"}, {"curl", "curl"}, {"/usr/bin/", "bin"}, {"a//b//", "b"},
        {"/", "/"},                {"", ""},         {"//", "/"},          {"/curl", "curl"},
    };
    for (const auto& c : cases) EXPECT_EQ(text::lastPathComponent(c.path), c.expected) << c.path;
}

TEST(Text, SmallerHelpers) {
    EXPECT_EQ(text::lowercased("MiXeD-123_Ü"), "mixed-123_Ü");
    EXPECT_EQ(text::removingAll("a--b----c", "--"), "abc");
    EXPECT_EQ(text::removingAll("abc", ""), "abc");
    EXPECT_EQ(text::removingAll("aaa", "aa"), "a");
    EXPECT_EQ(text::trimmedCharacters("[[::1]]", "[]"), "::1");
    EXPECT_EQ(text::trimmedCharacters("]]]", "[]"), "");
}

}  // namespace
}  // namespace quillfort
