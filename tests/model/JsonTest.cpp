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

// The pretty layout itself is pinned below; here only that a rule goes through it whole.
TEST(JsonWriter, PrettyRuleIsTheSortedLayoutOfTheCompactOne) {
    const auto pretty = encodePretty(sampleRule());
    EXPECT_EQ(pretty, serializePretty(boost::json::parse(kSampleRuleCompact)));
    EXPECT_EQ(decodeJson<Rule>(pretty), sampleRule());
}

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
    EXPECT_EQ(serializePretty(boost::json::parse("{}")), "{}");
    EXPECT_EQ(serializePretty(boost::json::parse("[]")), "[]");
}

TEST(JsonWriter, WritesScalarsInTheirShortestForm) {
    struct Case {
        json::value value;
        std::string_view text;
    };
    const Case cases[] = {
        {json::value(0.0), "0"},
        {json::value(0.1), "0.1"},
        {json::value(0.1 + 0.2), "0.30000000000000004"},
        {json::value(-2.5), "-2.5"},
        {json::value(12.0), "12"},
        {json::value(std::numeric_limits<std::int64_t>::min()), "-9223372036854775808"},
        {json::value(std::numeric_limits<std::uint64_t>::max()), "18446744073709551615"},
        {json::value("quote\" backslash\\ tab\t nl\n ctl\x01 slash/ ü"),
         R"("quote\" backslash\\ tab\t nl\n ctl\u0001 slash/ ü")"},
        {json::value("\b\f\r\x1f"), R"("\b\f\r\u001f")"},
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

TEST(JsonReader, DoublesWeWriteReadBackExactly) {
    // Values that a parser rounding in its own way reads one unit in the last place off.
    for (double value : {474.59380568556355, 458.12455122160236, 14.025674508164565, 1.3927926388013963e-143,
                         1.7161392603081718e+277, 0.1 + 0.2, 5e-324, 1.7976931348623157e308, -0.0}) {
        auto text = serializeCompact(json::value(value));
        auto read = parseJson(text);
        ASSERT_TRUE(read) << text;
        EXPECT_EQ(fromJson<double>(*read), value) << text;
        auto nested = parseJson("{\"a\":[" + text + "]}");
        EXPECT_EQ(fromJson<double>(nested->at("a").at(0)), value) << text;
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
        {"0", true, true, true, true},
        {"65535", true, true, true, true},
        {"65536", false, true, true, true},
        {"-1", false, true, false, true},
        {"2147483647", false, true, true, true},
        {"2147483648", false, false, true, true},
        {"-2147483648", false, true, false, true},
        {"-2147483649", false, false, false, true},
        {"4294967295", false, false, true, true},
        {"4294967296", false, false, false, true},
        {"9223372036854775807", false, false, false, true},
        {"-9223372036854775808", false, false, false, true},
        {"9223372036854775808", false, false, false, false},
        {"18446744073709551616", false, false, false, false},
        {"1e30", false, false, false, false},
        {"443.0", true, true, true, true},  // an integral number written with a fraction
        {"443.5", false, false, false, false},
        {"\"443\"", false, false, false, false},
        {"true", false, false, false, false},
        {"null", false, false, false, false},
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
    EXPECT_EQ(fromJson<std::uint16_t>(boost::json::parse("70000")).error().reason, "value 70000 out of range");
}

TEST(JsonReader, ScalarsOfTheWrongKindNameWhatWasFound) {
    auto number = boost::json::parse("1");
    EXPECT_EQ(fromJson<std::string>(number).error().reason, "expected a string, found a number");
    EXPECT_EQ(fromJson<bool>(boost::json::parse("\"true\"")).error().reason, "expected a boolean, found a string");
    EXPECT_EQ(fromJson<std::string>(json::value(true)).error().reason, "expected a string, found a boolean");
    EXPECT_EQ(fromJson<double>(boost::json::parse("null")).error().reason, "expected a number, found null");
    EXPECT_EQ(fromJson<std::vector<std::string>>(boost::json::parse("{}")).error().reason,
              "expected an array, found an object");
    EXPECT_EQ(fromJson<double>(boost::json::parse("7")), 7.0);
}

TEST(JsonError, DescriptionJoinsKeysAndIndicesIntoAPath) {
    JsonError leaf{{}, "unknown value \"Git\""};
    EXPECT_EQ(leaf.description(), "unknown value \"Git\"");
    auto nested = leaf.atIndex(1).under("tags").under("identity").atIndex(0).under("ancestorChain");
    EXPECT_EQ(nested.path, "ancestorChain[0].identity.tags[1]");
    EXPECT_EQ(nested.description(), "ancestorChain[0].identity.tags[1]: unknown value \"Git\"");
}

}  // namespace
}  // namespace quillfort
