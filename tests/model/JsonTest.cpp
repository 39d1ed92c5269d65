#include "model/Json.hpp"

#include <cstdint>
#include <limits>
#include <string>

#include <boost/json/parse.hpp>
#include <gtest/gtest.h>

#include "model/Rule.hpp"
#include "tests/testsupport/ModelSamples.hpp"

namespace quillfort {
namespace {

using testing::sampleRule;

// Written by hand: field order kept, one-key alternative objects, upper-case id,
// absent notes left out.
constexpr std::string_view kSampleRuleCompact =
    R"({"id":"00000000-0000-4000-8000-000000000001","enabled":true,"name":"Allow curl to api.example.com",)"
    R"("action":"allow","subject":[{"exactExecutable":{"_0":"/usr/bin/curl"}},{"signingID":{"_0":"com.apple.curl"}}],)"
    R"("destination":[{"hostnameExact":{"_0":"api.example.com"}},{"portExact":{"_0":443}},)"
    R"({"transportProtocol":{"_0":"tcp"}}],"scope":"persistent","origin":"promptResolved","priority":10000})";

TEST(JsonWriter, CompactKeepsFieldOrderOfARule) { EXPECT_EQ(encodeCompact(sampleRule()), kSampleRuleCompact); }

TEST(JsonWriter, PrettySortsByBytesAndWritesEmptyContainersInline) {
    auto value = boost::json::parse(R"({"b":[],"a":{},"B":{"y":1,"x":[true,null]},"_":"é"})");
    EXPECT_EQ(serializePretty(value), R"({
  "B" : {
    "x" : [
      true,
      null
    ],
    "y" : 1
  },
  "_" : "é",
  "a" : {},
  "b" : []
})");
}

TEST(JsonWriter, WritesScalarsInTheirShortestForm) {
    struct Case {
        json::value value;
        std::string_view text;
    };
    const Case cases[] = {
        {json::value(0.1 + 0.2), "0.30000000000000004"},
        {json::value(12.0), "12"},
        {json::value(std::numeric_limits<std::int64_t>::min()), "-9223372036854775808"},
        {json::value(std::numeric_limits<std::uint64_t>::max()), "18446744073709551615"},
        {json::value("quote\" backslash\\ tab\t nl\n ctl\x01 slash/ ü\b\f\r\x1f"),
         R"("quote\" backslash\\ tab\t nl\n ctl\u0001 slash/ ü\b\f\r\u001f")"},
        // Bytes that are not UTF-8 (from /proc, say) leave as U+FFFD, never as they came.
        {json::value("arg\xff-\xE2\x82"), "\"arg\uFFFD-\uFFFD\""},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(serializeCompact(c.value), c.text);
        EXPECT_EQ(serializePretty(c.value), c.text);
        // What we write is JSON that reads back as the same text.
        EXPECT_EQ(serializeCompact(boost::json::parse(c.text)), c.text);
    }
}

TEST(JsonReader, RejectsTextThatIsNotOneStrictJsonValue) {
    for (std::string_view text : {"", "{", "[1,]", R"({"a":1,})", R"({"a":1} {})", "// note\n{}", "{'a':1}",
                                  "NaN", "\"\xff\""}) {
        auto parsed = parseJson(text);
        ASSERT_FALSE(parsed) << text;
        EXPECT_TRUE(parsed.error().path.empty());
        EXPECT_TRUE(parsed.error().reason.starts_with("invalid JSON: ")) << parsed.error().reason;
    }
    EXPECT_TRUE(parseJson(" \n{\"a\" : [1, 2.5, \"x\"]}\n "));
}

TEST(JsonReader, IntegersMustFitTheirFieldWidth) {
    struct Case {
        std::string_view text;
        bool u16, i32, u32, i64;
    };
    const Case cases[] = {
        {"65535", true, true, true, true},
        {"65536", false, true, true, true},
        {"-1", false, true, false, true},
        {"2147483647", false, true, true, true},
        {"2147483648", false, false, true, true},
        {"-2147483649", false, false, false, true},
        {"4294967295", false, false, true, true},
        {"4294967296", false, false, false, true},
        {"9223372036854775808", false, false, false, false},
        {"1e30", false, false, false, false},
        {"443.0", true, true, true, true},  // an integral number written with a fraction
        {"443.5", false, false, false, false},
        {"\"443\"", false, false, false, false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        auto jv = boost::json::parse(c.text);
        EXPECT_EQ(fromJson<std::uint16_t>(jv).has_value(), c.u16);
        EXPECT_EQ(fromJson<std::int32_t>(jv).has_value(), c.i32);
        EXPECT_EQ(fromJson<std::uint32_t>(jv).has_value(), c.u32);
        EXPECT_EQ(fromJson<std::int64_t>(jv).has_value(), c.i64);
    }
    EXPECT_EQ(fromJson<std::uint16_t>(boost::json::parse("443.0")), 443);
    EXPECT_EQ(fromJson<std::int64_t>(boost::json::parse("-9223372036854775808")),
              std::numeric_limits<std::int64_t>::min());
}

TEST(JsonReader, ScalarsOfTheWrongKindNameWhatWasFound) {
    EXPECT_EQ(fromJson<std::string>(boost::json::parse("1")).error().reason, "expected a string, found a number");
    EXPECT_EQ(fromJson<double>(boost::json::parse("null")).error().reason, "expected a number, found null");
    EXPECT_EQ(fromJson<std::vector<std::string>>(boost::json::parse("{}")).error().reason,
              "expected an array, found an object");
}

// Nested paths are pinned by the decoders' failure tests.
TEST(JsonError, DescriptionPutsThePathBeforeTheReason) {
    EXPECT_EQ((JsonError{{}, "unknown value \"Git\""}).description(), "unknown value \"Git\"");
    EXPECT_EQ((JsonError{{}, "bad"}).atIndex(1).under("tags").description(), "tags[1]: bad");
}

}  // namespace
}  // namespace quillfort
