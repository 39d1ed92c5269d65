#include "QuillfortFilter/flows/HostNameCache.hpp"
#include "QuillfortFilter/flows/PendingPrompts.hpp"
#include "QuillfortFilter/process/ProcessTags.hpp"

#include <gtest/gtest.h>

namespace quillfort {
namespace {

using namespace std::chrono_literals;

DnsResponse answer(std::vector<std::string> names, const char* address, std::uint32_t ttl) {
    return DnsResponse{names.front(), {DnsAddressAnswer{*IpAddress::parse(address), ttl, std::move(names)}}};
}

TEST(HostNameCache, PrefersTheFlowsOwnAnswerTrustsItLessPastItsTtlAndStaysBounded) {
    HostNameCache cache(2);
    const auto start = HostNameCache::Clock::time_point{} + 1h;
    cache.record(answer({"own.example"}, "192.0.2.1", 60), 42, start);
    cache.record(answer({"other.example"}, "192.0.2.1", 60), 7, start + 1s);
    const auto address = *IpAddress::parse("::ffff:192.0.2.1");  // mapped: the same address

    EXPECT_EQ(cache.lookup(address, 42, start + 2s),
              (HostNameMatch{{"own.example"}, DNSConfidence::exact}));
    EXPECT_EQ(cache.lookup(address, 99, start + 2s),
              (HostNameMatch{{"other.example"}, DNSConfidence::correlated}));
    EXPECT_EQ(cache.lookup(address, 42, start + 61s)->confidence, DNSConfidence::guessed);

    cache.record(answer({"b.example"}, "192.0.2.2", 60), 0, start);
    cache.record(answer({"c.example"}, "192.0.2.3", 60), 0, start);
    EXPECT_EQ(cache.size(), 2u);
    EXPECT_FALSE(cache.lookup(address, 42, start));  // the oldest address went first
}

TEST(PendingPrompts, IdenticalFlowsShareAPromptRetransmissionsJoinTheirFlowAndLimitsHold) {
    PendingPrompts pending(/*maximumPrompts=*/1, /*maximumPackets=*/4);
    const PromptKey key{"/usr/bin/curl", 1000, "example.com", 443, TransportProtocol::tcp, FlowDirection::outbound};
    auto tuple = [](std::uint16_t port) {
        return FlowTuple{6, {*IpAddress::parse("10.0.0.1"), port}, {*IpAddress::parse("10.0.0.2"), 443},
                         FlowDirection::outbound};
    };
    const FlowPromptRequest request{Uuid::random(), {}, std::nullopt};
    const auto now = std::chrono::steady_clock::now();

    auto first = pending.hold(key, HeldFlow{tuple(1), {1}, {}, now}, request, now);
    ASSERT_TRUE(first && first->second);
    auto second = pending.hold(key, HeldFlow{tuple(2), {2}, {}, now}, FlowPromptRequest{Uuid::random(), {}, {}}, now);
    ASSERT_TRUE(second);
    EXPECT_FALSE(second->second);  // joined, no second prompt
    EXPECT_EQ(pending.holdPacket(tuple(1), 3), PendingPrompts::Join::joined);
    EXPECT_EQ(pending.holdPacket(tuple(9), 4), PendingPrompts::Join::notHeld);

    PromptKey other = key;
    other.port = 80;
    EXPECT_FALSE(pending.hold(other, HeldFlow{tuple(5), {5}, {}, now}, FlowPromptRequest{Uuid::random(), {}, {}}, now));
    EXPECT_EQ(pending.holdPacket(tuple(2), 6), PendingPrompts::Join::joined);
    EXPECT_EQ(pending.holdPacket(tuple(2), 7), PendingPrompts::Join::full);

    auto taken = pending.take(request.id);
    ASSERT_TRUE(taken);
    ASSERT_EQ(taken->flows.size(), 2u);
    EXPECT_EQ(taken->flows[0].packets, (std::vector<std::uint32_t>{1, 3}));
    EXPECT_EQ(taken->flows[1].packets, (std::vector<std::uint32_t>{2, 6}));
    EXPECT_TRUE(pending.empty());
    EXPECT_EQ(pending.packets(), 0u);
    EXPECT_EQ(pending.holdPacket(tuple(1), 8), PendingPrompts::Join::notHeld);
}

TEST(ProcessTags, ClassifiesLinuxProgramsAndInheritsFromWhatStartedThem) {
    auto identity = [](std::string path, std::vector<std::string> argv = {}) {
        ProcessIdentity made;
        made.executablePath = std::move(path);
        made.argv = std::move(argv);
        made.cwd = "/home/dev";
        return made;
    };
    EXPECT_EQ(ProcessTags::classify(identity("/usr/bin/python3.11")), std::set{ProcessTag::python});
    EXPECT_EQ(ProcessTags::classify(identity("/usr/lib/git-core/git-remote-https")), std::set{ProcessTag::git});
    EXPECT_EQ(ProcessTags::classify(identity("/usr/lib/jvm/bin/java", {"java", "org.gradle.launcher.daemon.bootstrap.GradleDaemon"})),
              (std::set{ProcessTag::gradleDaemon, ProcessTag::javaGradle}));
    EXPECT_TRUE(ProcessTags::classify(identity("/usr/bin/pythonista")).empty());
    EXPECT_EQ(ProcessTags::scriptPath(identity("/usr/bin/python3", {"python3", "-u", "tools/fetch.py"})),
              "/home/dev/tools/fetch.py");
    EXPECT_FALSE(ProcessTags::scriptPath(identity("/usr/bin/python3", {"python3", "-c", "print(1)"})));

    ProcessNode curl;
    std::vector<ProcessNode> ancestors(3);
    ancestors[0].tags = {ProcessTag::shell};
    ancestors[2].tags = {ProcessTag::terminal};
    ProcessTags::inherit(curl, ancestors);
    EXPECT_EQ(curl.tags, (std::set{ProcessTag::shell, ProcessTag::terminal}));
    EXPECT_EQ(ancestors[1].tags, std::set{ProcessTag::terminal});
}

}  // namespace
}  // namespace quillfort
