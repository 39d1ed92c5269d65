#include "model/ProcessIdentity.hpp"

#include <boost/json/parse.hpp>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/testsupport/ModelSamples.hpp"

namespace quillfort {
namespace {

using ::testing::UnorderedElementsAre;
using testing::sampleDate;

ProcessIdentity minimalIdentity() {
    ProcessIdentity identity;
    identity.pid = 1;
    identity.auditToken = Bytes{0xde, 0xad};
    identity.executablePath = "/sbin/launchd";
    identity.launchTime = sampleDate();
    return identity;
}

// Every field set is round-tripped with the sample flow context.
TEST(ProcessIdentity, AbsentOptionalsAreLeftOutAndReadBackAbsent) {
    EXPECT_EQ(decodeJson<ProcessIdentity>(encodeCompact(minimalIdentity())), minimalIdentity());
    const ProcessNode exited{minimalIdentity(), {}, std::nullopt, {}, ProcessState::exited};
    EXPECT_EQ(decodeJson<ProcessNode>(encodeCompact(exited)), exited);
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
    EXPECT_THAT(a->tags, UnorderedElementsAre(ProcessTag::git, ProcessTag::terminal));
    EXPECT_EQ(a, b);
    EXPECT_EQ(boost::json::parse(encodeCompact(*a)).at("tags").as_array().size(), 2u);
}

}  // namespace
}  // namespace quillfort
