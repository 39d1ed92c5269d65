#include "model/Text.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace quillfort {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

// Runs `function` on each input and compares its result with the expected one.
template <class Out, class Function>
void expectEach(Function function, std::initializer_list<std::pair<std::string_view, Out>> cases) {
    for (const auto& [input, expected] : cases) EXPECT_EQ(function(input), expected) << '"' << input << '"';
}

TEST(Text, TrimmedRemovesAsciiAndUnicodeBlanks) {
    expectEach<std::string_view>([](auto t) { return text::trimmed(t); }, {
        {"\t\n\v\f\r a b \r\n", "a b"},
        {" \t\n ", ""},
        {"\u00A0x\u3000", "x"},
        {"\u0085\u1680\u2000\u200Ax\u2028\u2029\u202F\u205F", "x"},
        {"\u00A0 \u3000", ""},
        {"x\u2010", "x\u2010"},              // a hyphen, not a blank, though it shares its first bytes with U+2000
        {"\u200Bx\u200B", "\u200Bx\u200B"},  // zero width space is not white space
        {"a\u00A0b", "a\u00A0b"},
        {"x\xC2", "x\xC2"},                  // a cut-off sequence is kept, not read past the end
    });
}

TEST(Text, ValidUtf8ReplacesEachIllFormedSubpart) {
    expectEach<std::string>([](std::string_view bytes) {
        auto valid = text::validUtf8(bytes);
        EXPECT_EQ(text::isValidUtf8(bytes), valid == bytes) << bytes;
        return valid;
    }, {
        {"plain é ü \u20AC \U0001F600", "plain é ü \u20AC \U0001F600"},
        {"a\xff" "b", "a\uFFFDb"},
        {"\x80\xBF", "\uFFFD\uFFFD"},              // lone continuation bytes
        {"\xE2\x82x", "\uFFFDx"},                   // cut-off sequence: one replacement
        {"\xC0\xAF", "\uFFFD\uFFFD"},              // overlong "/"
        {"\xE0\x80\xAF", "\uFFFD\uFFFD\uFFFD"},    // overlong, three bytes
        {"\xED\xA0\x80", "\uFFFD\uFFFD\uFFFD"},    // a surrogate
        {"\xF4\x90\x80\x80", "\uFFFD\uFFFD\uFFFD\uFFFD"},  // above U+10FFFF
        {"\xF0\x9F\x98", "\uFFFD"},
    });
}

TEST(Text, ParseUInt16AcceptsOnlyPlainDecimals) {
    expectEach<std::optional<std::uint16_t>>([](auto t) { return text::parseUInt16(t); }, {
        {"443", 443}, {"+443", 443}, {"007", 7},  {"65535", 65535}, {"65536", {}}, {"-1", {}},  {"-0", {}},
        {"", {}},     {"+", {}},     {"++1", {}}, {" 1", {}},       {"1 ", {}},    {"0x10", {}}, {"44.3", {}},
    });
}

TEST(Text, ParseInt64CoversTheWholeRange) {
    expectEach<std::optional<std::int64_t>>([](auto t) { return text::parseInt64(t); }, {
        {"-17", -17}, {"+17", 17}, {"9223372036854775807", INT64_MAX}, {"-9223372036854775808", INT64_MIN},
        {"9223372036854775808", {}}, {"-9223372036854775809", {}}, {"18446744073709551616", {}}, {"-", {}},
        {"", {}}, {"--1", {}}, {"+-1", {}}, {"1.0", {}}, {" 5", {}},
    });
}

TEST(Text, NormalizedHostTrimsBracketsAndFoldsCase) {
    expectEach<std::string>([](auto t) { return text::normalizedHost(t); }, {
        {" \tAPI.Example.COM\n", "api.example.com"},
        {" [FE80::1] ", "fe80::1"},
        {"[[x]]", "x"},
        {"[]", ""},
        {"ÄPI.example", "Äpi.example"},  // only ASCII letters are folded
    });
}

TEST(Text, SplitNonEmptyDropsEmptyPieces) {
    EXPECT_THAT(text::splitNonEmpty(",a,,b,", ','), ElementsAre("a", "b"));
    EXPECT_THAT(text::splitNonEmpty(" , ", ','), ElementsAre(" ", " "));
    EXPECT_THAT(text::splitNonEmpty("", ','), IsEmpty());
    EXPECT_THAT(text::splitNonEmpty(",,,", ','), IsEmpty());
}

TEST(Text, LastPathComponent) {
    expectEach<std::string_view>([](auto t) { return text::lastPathComponent(t); }, {
        {"/usr/bin/curl", "curl"}, {"curl", "curl"}, {"a//b//", "b"}, {"/", "/"}, {"", ""}, {"//", "/"},
    });
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
