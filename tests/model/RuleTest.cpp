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

TEST(RuleSubject, EveryAlternativeIsAOneKeyObjectHoldingItsValueUnderZero) {
    struct Case {
        RuleSubject subject;
        std::string_view json;
    };
    const Case cases[] = {
        {RuleSubject::exactExecutable("/usr/bin/curl"), R"({"exactExecutable":{"_0":"/usr/bin/curl"}})"},
        {RuleSubject::pathGlob("/opt/*/bin/*"), R"({"pathGlob":{"_0":"/opt/*/bin/*"}})"},
        {RuleSubject::bundleID("com.apple.Terminal"), R"({"bundleID":{"_0":"com.apple.Terminal"}})"},
        {RuleSubject::signingID("com.apple.curl"), R"({"signingID":{"_0":"com.apple.curl"}})"},
        {RuleSubject::teamID("ABCDE12345"), R"({"teamID":{"_0":"ABCDE12345"}})"},
        {RuleSubject::cdHash("a1b2"), R"({"cdHash":{"_0":"a1b2"}})"},
        {RuleSubject::processTag(ProcessTag::gradleDaemon), R"({"processTag":{"_0":"gradleDaemon"}})"},
        {RuleSubject::ancestorBundleID("com.googlecode.iterm2"), R"({"ancestorBundleID":{"_0":"com.googlecode.iterm2"}})"},
        {RuleSubject::ancestorSigningID("com.apple.zsh"), R"({"ancestorSigningID":{"_0":"com.apple.zsh"}})"},
        {RuleSubject::ancestorProcessTag(ProcessTag::javaGradle), R"({"ancestorProcessTag":{"_0":"javaGradle"}})"},
        {RuleSubject::cwdPrefix("/Users/dev/"), R"({"cwdPrefix":{"_0":"/Users/dev/"}})"},
        {RuleSubject::scriptPathSuffix("/manage.py"), R"({"scriptPathSuffix":{"_0":"/manage.py"}})"},
        {RuleSubject::ttyPresent(false), R"({"ttyPresent":{"_0":false}})"},
        {RuleSubject::ttyPresent(true), R"({"ttyPresent":{"_0":true}})"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(encodeCompact(c.subject), c.json);
        EXPECT_EQ(decodeJson<RuleSubject>(c.json), c.subject) << c.json;
    }
}

TEST(RuleDestination, EveryAlternativeIsAOneKeyObjectHoldingItsValueUnderZero) {
    struct Case {
        RuleDestination destination;
        std::string_view json;
    };
    const Case cases[] = {
        {RuleDestination::hostnameExact("api.example.com"), R"({"hostnameExact":{"_0":"api.example.com"}})"},
        {RuleDestination::hostnameSuffix("example.com"), R"({"hostnameSuffix":{"_0":"example.com"}})"},
        {RuleDestination::hostnameGlob("*.example.*"), R"({"hostnameGlob":{"_0":"*.example.*"}})"},
        {RuleDestination::ipCIDR("10.0.0.0/8"), R"({"ipCIDR":{"_0":"10.0.0.0/8"}})"},
        {RuleDestination::portExact(0), R"({"portExact":{"_0":0}})"},
        {RuleDestination::portExact(65535), R"({"portExact":{"_0":65535}})"},
        {RuleDestination::portRange({8000, 8080}), R"({"portRange":{"_0":{"lowerBound":8000,"upperBound":8080}}})"},
        {RuleDestination::portRange({9000, 10}), R"({"portRange":{"_0":{"lowerBound":9000,"upperBound":10}}})"},
        {RuleDestination::transportProtocol(TransportProtocol::udp), R"({"transportProtocol":{"_0":"udp"}})"},
        {RuleDestination::direction(FlowDirection::inbound), R"({"direction":{"_0":"inbound"}})"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(encodeCompact(c.destination), c.json);
        EXPECT_EQ(decodeJson<RuleDestination>(c.json), c.destination) << c.json;
    }
}

TEST(RuleSubject, ReadsOnlyTheAlternativeKeys) {
    EXPECT_EQ(decodeJson<RuleSubject>(R"({"comment":1,"teamID":{"_0":"T","extra":2},"_1":null})"),
              RuleSubject::teamID("T"));
    EXPECT_EQ(decodeJson<RuleDestination>(R"({"portExact":{"_0":22},"hostname":{"_0":"x"}})"),
              RuleDestination::portExact(22));
}

TEST(RuleConditions, MalformedAlternativesFailWithPathAndReason) {
    struct Case {
        std::string_view json;
        std::string_view path;
        std::string_view reason;
    };
    const Case subjects[] = {
        {R"({})", "", kKeyCount},
        {R"({"bundleID":{"_0":"a"},"teamID":{"_0":"b"}})", "", kKeyCount},
        {R"({"bundleID":{"_1":"a"}})", "bundleID._0", "missing required key"},
        {R"({"bundleID":"com.example"})", "bundleID", "expected an object, found a string"},
        {R"({"ttyPresent":{"_0":"yes"}})", "ttyPresent._0", "expected a boolean, found a string"},
        {R"({"processTag":{"_0":"perl"}})", "processTag._0", "unknown value \"perl\""},
        {R"(["bundleID"])", "", "expected an object, found an array"},
    };
    auto expectFailure = [](auto decoded, const Case& c) {
        ASSERT_FALSE(decoded) << c.json;
        EXPECT_EQ(decoded.error(), (JsonError{std::string(c.path), std::string(c.reason)})) << c.json;
    };
    for (const auto& c : subjects) expectFailure(decodeJson<RuleSubject>(c.json), c);
    const Case destinations[] = {
        {R"({"portExact":{"_0":70000}})", "portExact._0", "value 70000 out of range"},
        {R"({"portRange":{"_0":{"lowerBound":1}}})", "portRange._0.upperBound", "missing required key"},
        {R"({"transportProtocol":{"_0":"quic"}})", "transportProtocol._0", "unknown value \"quic\""},
        {R"({"direction":{"_0":"both"}})", "direction._0", "unknown value \"both\""},
        {R"({"hostnameExact":{"_0":5}})", "hostnameExact._0", "expected a string, found a number"},
    };
    for (const auto& c : destinations) expectFailure(decodeJson<RuleDestination>(c.json), c);
}

TEST(Rule, DecodeFailuresNameTheKeyAndTheFault) {
    struct Case {
        std::string_view label;
        std::function<void(json::object&)> spoil;
        std::string_view path;
        std::string_view reason;
    };
    const Case cases[] = {
        {"notes is the only optional", [](auto& o) { o.erase("priority"); }, "priority", "missing required key"},
        {"id without hyphens", [](auto& o) { o["id"] = "00000000000040008000000000000001"; }, "id",
         "invalid UUID \"00000000000040008000000000000001\""},
        {"id null", [](auto& o) { o["id"] = nullptr; }, "id", "expected a UUID string, found null"},
        {"action in capitals", [](auto& o) { o["action"] = "ALLOW"; }, "action", "unknown value \"ALLOW\""},
        {"notes a number", [](auto& o) { o["notes"] = 1; }, "notes", "expected a string, found a number"},
        {"two-key subject", [](auto& o) {
             o["subject"].as_array()[1] = boost::json::parse(R"({"bundleID":{"_0":"a"},"teamID":{"_0":"b"}})");
         }, "subject[1]", kKeyCount},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.label);
        auto object = boost::json::parse(encodeCompact(sampleRule())).as_object();
        c.spoil(object);
        auto decoded = decodeJson<Rule>(serializeCompact(object));
        ASSERT_FALSE(decoded);
        EXPECT_EQ(decoded.error().path, c.path);
        EXPECT_EQ(decoded.error().reason, c.reason);
    }
}

// Absent notes are pinned by the shared codec's sample rule; here the other two forms.
TEST(Rule, NotesReadBackWhenSetAndNullNotesOrUnknownKeysAreAccepted) {
    auto object = boost::json::parse(encodeCompact(sampleRule())).as_object();
    object["notes"] = nullptr;
    object["schemaHint"] = "ignored";
    EXPECT_EQ(decodeJson<Rule>(serializeCompact(object)), sampleRule());
    auto rule = sampleRule();
    rule.notes = "made at 3am";
    EXPECT_EQ(decodeJson<Rule>(encodeCompact(rule)), rule);
}

TEST(PortRange, ContainsBothBoundsAndNothingWhenInverted) {
    struct Case {
        PortRange range;
        std::uint16_t port;
        bool contained;
    };
    const Case cases[] = {
        {{8000, 8080}, 8000, true},   {{8000, 8080}, 8080, true},  {{8000, 8080}, 8040, true},
        {{8000, 8080}, 7999, false},  {{8000, 8080}, 8081, false}, {{443, 443}, 443, true},
        {{443, 443}, 444, false},     {{0, 65535}, 0, true},       {{0, 65535}, 65535, true},
        {{8080, 8000}, 8000, false},  {{8080, 8000}, 8040, false}, {{8080, 8000}, 8080, false},
        {{65535, 0}, 0, false},       {{65535, 0}, 65535, false},
    };
    for (const auto& c : cases)
        EXPECT_EQ(c.range.contains(c.port), c.contained)
            << c.range.lowerBound << "..." << c.range.upperBound << " / " << c.port;
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
