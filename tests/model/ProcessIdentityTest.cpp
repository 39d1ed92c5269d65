#include "model/ProcessIdentity.hpp"

#include <boost/json/parse.hpp>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/testsupport/ModelSamples.hpp"

namespace quillfort {
namespace {

using ::testing::UnorderedElementsAre;
using testing::sampleDate;
using testing::sampleProcessIdentity;
using testing::sampleProcessNode;

template <class T>
void expectRoundTrips(const T& value) {
    EXPECT_EQ(decodeJson<T>(encodeCompact(value)), value);
}

ProcessIdentity minimalIdentity() {
    ProcessIdentity identity;
    identity.pid = 1;
    identity.auditToken = Bytes{0xde, 0xad};
    identity.executablePath = "/sbin/launchd";
    identity.launchTime = sampleDate();
    return identity;
}

TEST(ProcessIdentity, IdentityAndNodeRoundTripWithEveryFieldSetOrAbsent) {
    expectRoundTrips(sampleProcessIdentity());
    expectRoundTrips(minimalIdentity());
    auto extremes = minimalIdentity();
    extremes.pid = -2147483647 - 1;
    extremes.userID = 4294967295u;
    extremes.auditToken = Bytes{};
    extremes.argv = {"", "with space", "ünï\"code\n"};
    expectRoundTrips(extremes);
    expectRoundTrips(sampleProcessNode());
    expectRoundTrips(ProcessNode{minimalIdentity(), {}, std::nullopt, {}, ProcessState::exited});
    // Absent optionals are left out.
    EXPECT_EQ(encodeCompact(minimalIdentity()),
              R"({"pid":1,"auditToken":"3q0=","executablePath":"/sbin/launchd","argv":[],)"
              R"("launchTime":"2026-03-01T12:00:00Z"})");
}

TEST(ProcessNode, TagsAreASetOnTheWire) {
    const std::string prefix = R"({"identity":)" + encodeCompact(minimalIdentity()) + R"(,"tags":)";
    const std::string suffix = R"(,"childAuditTokens":[],"state":"running"})";
    auto a = decodeJson<ProcessNode>(prefix + R"(["git","terminal","git"])" + suffix);
    auto b = decodeJson<ProcessNode>(prefix + R"(["terminal","git"])" + suffix);
    ASSERT_TRUE(a) << a.error();
    ASSERT_TRUE(b) << b.error();
    EXPECT_THAT(a->tags, UnorderedElementsAre(ProcessTag::git, ProcessTag::terminal));
    EXPECT_EQ(*a, *b);
    EXPECT_EQ(std::hash<ProcessNode>{}(*a), std::hash<ProcessNode>{}(*b));

    auto written = boost::json::parse(encodeCompact(*a));
    EXPECT_EQ(written.at("tags").as_array().size(), 2u);
}

}  // namespace
}  // namespace quillfort
