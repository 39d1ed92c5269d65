#include "model/Rule.hpp"

#include "model/FlowContext.hpp"
#include "model/FlowDecision.hpp"

#include <functional>

#include <boost/json/parse.hpp>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/testsupport/ModelSamples.hpp"

namespace quillfort {
namespace {

using ::testing::ElementsAre;
using testing::sampleRule;

constexpr std::string_view kKeyCount = "Invalid number of keys found, expected one.";

// Encodes to `json` and reads back from it.
template <class T>
void expectWire(const T& value, std::string_view json) {
    EXPECT_EQ(encodeCompact(value), json);
    EXPECT_EQ(decodeJson<T>(json), value) << json;
}

template <class T>
void expectFailure(std::string_view json, std::string_view path, std::string_view reason) {
    EXPECT_EQ(decodeJson<T>(json), std::unexpected(JsonError{std::string(path), std::string(reason)})) << json;
}

TEST(RuleConditions, EveryAlternativeIsAOneKeyObjectHoldingItsValueUnderZero) {
    expectWire(RuleSubject::exactExecutable("/usr/bin/curl"), R"({"exactExecutable":{"_0":"/usr/bin/curl"}})");
    expectWire(RuleSubject::pathGlob("/opt/*/bin/*"), R"({"pathGlob":{"_0":"/opt/*/bin/*"}})");
    expectWire(RuleSubject::bundleID("com.apple.Terminal"), R"({"bundleID":{"_0":"com.apple.Terminal"}})");
    expectWire(RuleSubject::signingID("com.apple.curl"), R"({"signingID":{"_0":"com.apple.curl"}})");
    expectWire(RuleSubject::teamID("ABCDE12345"), R"({"teamID":{"_0":"ABCDE12345"}})");
    expectWire(RuleSubject::cdHash("a1b2"), R"({"cdHash":{"_0":"a1b2"}})");
    expectWire(RuleSubject::processTag(ProcessTag::gradleDaemon), R"({"processTag":{"_0":"gradleDaemon"}})");
    expectWire(RuleSubject::ancestorBundleID("com.googlecode.iterm2"),
               R"({"ancestorBundleID":{"_0":"com.googlecode.iterm2"}})");
    expectWire(RuleSubject::ancestorSigningID("com.apple.zsh"), R"({"ancestorSigningID":{"_0":"com.apple.zsh"}})");
    expectWire(RuleSubject::ancestorProcessTag(ProcessTag::javaGradle),
               R"({"ancestorProcessTag":{"_0":"javaGradle"}})");
    expectWire(RuleSubject::cwdPrefix("/Users/dev/"), R"({"cwdPrefix":{"_0":"/Users/dev/"}})");
    expectWire(RuleSubject::scriptPathSuffix("/manage.py"), R"({"scriptPathSuffix":{"_0":"/manage.py"}})");
    expectWire(RuleSubject::ttyPresent(true), R"({"ttyPresent":{"_0":true}})");
    expectWire(RuleDestination::hostnameExact("api.example.com"), R"({"hostnameExact":{"_0":"api.example.com"}})");
    expectWire(RuleDestination::hostnameSuffix("example.com"), R"({"hostnameSuffix":{"_0":"example.com"}})");
    expectWire(RuleDestination::hostnameGlob("*.example.*"), R"({"hostnameGlob":{"_0":"*.example.*"}})");
    expectWire(RuleDestination::ipCIDR("10.0.0.0/8"), R"({"ipCIDR":{"_0":"10.0.0.0/8"}})");
    expectWire(RuleDestination::portExact(65535), R"({"portExact":{"_0":65535}})");
    expectWire(RuleDestination::portRange({8000, 8080}),
               R"({"portRange":{"_0":{"lowerBound":8000,"upperBound":8080}}})");
    expectWire(RuleDestination::transportProtocol(TransportProtocol::udp), R"({"transportProtocol":{"_0":"udp"}})");
    expectWire(RuleDestination::direction(FlowDirection::inbound), R"({"direction":{"_0":"inbound"}})");
}

TEST(RuleConditions, ReadOnlyTheAlternativeKeys) {
    EXPECT_EQ(decodeJson<RuleSubject>(R"({"comment":1,"teamID":{"_0":"T","extra":2},"_1":null})"),
              RuleSubject::teamID("T"));
    EXPECT_EQ(decodeJson<RuleDestination>(R"({"portExact":{"_0":22},"hostname":{"_0":"x"}})"),
              RuleDestination::portExact(22));
}

TEST(RuleConditions, MalformedAlternativesFailWithPathAndReason) {
    expectFailure<RuleSubject>(R"({})", "", kKeyCount);
    expectFailure<RuleSubject>(R"({"bundleID":{"_1":"a"}})", "bundleID._0", "missing required key");
    expectFailure<RuleSubject>(R"({"bundleID":"com.example"})", "bundleID", "expected an object, found a string");
    expectFailure<RuleSubject>(R"({"ttyPresent":{"_0":"yes"}})", "ttyPresent._0", "expected a boolean, found a string");
    expectFailure<RuleSubject>(R"({"processTag":{"_0":"perl"}})", "processTag._0", "unknown value \"perl\"");
    expectFailure<RuleSubject>(R"(["bundleID"])", "", "expected an object, found an array");
    expectFailure<RuleDestination>(R"({"portExact":{"_0":70000}})", "portExact._0", "value 70000 out of range");
    expectFailure<RuleDestination>(R"({"portRange":{"_0":{"lowerBound":1}}})", "portRange._0.upperBound",
                                   "missing required key");
}

// The sample rule as JSON, changed by `spoil`.
std::string spoiled(const std::function<void(json::object&)>& spoil) {
    auto object = boost::json::parse(encodeCompact(sampleRule())).as_object();
    spoil(object);
    return serializeCompact(object);
}

TEST(Rule, DecodeFailuresNameTheKeyAndTheFault) {
    // Notes are the only optional field.
    expectFailure<Rule>(spoiled([](auto& o) { o.erase("priority"); }), "priority", "missing required key");
    expectFailure<Rule>(spoiled([](auto& o) { o["id"] = "00000000000040008000000000000001"; }), "id",
                        "invalid UUID \"00000000000040008000000000000001\"");
    expectFailure<Rule>(spoiled([](auto& o) { o["action"] = "ALLOW"; }), "action", "unknown value \"ALLOW\"");
    expectFailure<Rule>(spoiled([](auto& o) {
        o["subject"].as_array()[1] = boost::json::parse(R"({"bundleID":{"_0":"a"},"teamID":{"_0":"b"}})");
    }), "subject[1]", kKeyCount);
}

// Absent notes are pinned by the shared codec's sample rule; here the other two forms.
TEST(Rule, NotesReadBackWhenSetAndNullNotesOrUnknownKeysAreAccepted) {
    EXPECT_EQ(decodeJson<Rule>(spoiled([](auto& o) {
                  o["notes"] = nullptr;
                  o["schemaHint"] = "ignored";
              })),
              sampleRule());
    auto rule = sampleRule();
    rule.notes = "made at 3am";
    EXPECT_EQ(decodeJson<Rule>(encodeCompact(rule)), rule);
}

TEST(PortRange, ContainsBothBoundsAndNothingWhenInverted) {
    for (auto [lower, upper, port, contained] : {
             std::tuple<std::uint16_t, std::uint16_t, std::uint16_t, bool>{8000, 8080, 8000, true},
             {8000, 8080, 8080, true}, {8000, 8080, 7999, false}, {8000, 8080, 8081, false},
             {0, 65535, 65535, true}, {8080, 8000, 8040, false},
         }) {
        EXPECT_EQ((PortRange{lower, upper}.contains(port)), contained) << lower << "..." << upper << " / " << port;
    }
}

// The raw strings are what the filter reads and writes, in declaration order.
TEST(WireEnumerations, RawStringsAndOrder) {
    auto raw = [](auto cases) {
        std::vector<std::string_view> out;
        for (auto value : cases) {
            out.push_back(rawValue(value));
            EXPECT_EQ(fromRawValue<decltype(value)>(rawValue(value)), value);
        }
        return out;
    };
    EXPECT_THAT(raw(allCases<RuleAction>()), ElementsAre("allow", "drop", "ask"));
    EXPECT_THAT(raw(allCases<RuleScope>()), ElementsAre("session", "temporary", "persistent"));
    EXPECT_THAT(raw(allCases<RuleOrigin>()), ElementsAre("manual", "promptResolved", "permissiveLearned", "bootstrap"));
    EXPECT_THAT(raw(allCases<FlowDirection>()), ElementsAre("inbound", "outbound"));
    EXPECT_THAT(raw(allCases<TransportProtocol>()), ElementsAre("tcp", "udp", "unknown"));
    EXPECT_THAT(raw(allCases<DNSConfidence>()), ElementsAre("exact", "correlated", "guessed", "unknown"));
    EXPECT_THAT(raw(allCases<NetworkProfile>()), ElementsAre("default", "trusted", "untrusted"));
    EXPECT_THAT(raw(allCases<FlowDecisionAction>()), ElementsAre("allow", "drop", "pause", "prompt", "error"));
    EXPECT_THAT(raw(allCases<UnknownTrafficMode>()), ElementsAre("alerting", "permissive", "blocking"));
    EXPECT_THAT(raw(allCases<ProcessState>()), ElementsAre("running", "exited"));
    EXPECT_THAT(raw(allCases<ProcessTag>()), ElementsAre("terminal", "warp", "gradleWrapper", "gradleDaemon",
                                                         "javaGradle", "shell", "node", "python", "git", "ssh"));
    EXPECT_EQ(fromRawValue<RuleScope>("Session"), std::nullopt);
    EXPECT_EQ(fromRawValue<ProcessTag>(""), std::nullopt);
}

}  // namespace
}  // namespace quillfort
