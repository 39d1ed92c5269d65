// What the filter promises where per-process firewalls are weakest: it waits
// as long as the user does, loses nothing and leaks nothing in a burst,
// leaves other firewalls' rules alone, and never holds the kernel's own
// traffic.
#include <gtest/gtest.h>

#include "tests/QuillfortFilter/namespace/FilterSandbox.hpp"

namespace quillfort::testing {
namespace {

using D = RuleDestination;
using namespace std::chrono_literals;

class FilterPromises : public ::testing::Test {
protected:
    void SetUp() override {
        if (const auto& reason = namespaceSkipReason()) GTEST_SKIP() << *reason;
    }

    static std::size_t totalIn(const std::string& output) {
        const auto at = output.rfind("total ");
        return at == std::string::npos ? 0 : std::stoul(output.substr(at + 6));
    }

    FilterSandbox box;
};

TEST_F(FilterPromises, ABurstOfNewFlowsDeliversWhatARuleAllowsAndNothingElse) {
    box.writeConfiguration(R"({"unknownTrafficMode": "blocking"})");
    // Two programs told apart by the script they run: one a rule allows, one no rule names.
    std::filesystem::create_symlink(QUILLFORT_NETPEER, box.home() / "burst-allowed.py");
    Rule allowed = testRule("Allow the burst", RuleAction::allow, FilterSandbox::python(), {D::portExact(9701)});
    allowed.subject.push_back(RuleSubject::scriptPathSuffix("burst-allowed.py"));
    box.writeRules({allowed});
    auto allowedCounter = box.startPeer({"count-udp", "127.0.0.1", "9701", "5", "10000", "no"});
    auto unknownCounter = box.startPeer({"count-udp", "127.0.0.1", "9702", "5", "0", "no"});
    ASSERT_TRUE(eventually([&] {
        return allowedCounter.standardOutput().find("ready") != std::string::npos &&
               unknownCounter.standardOutput().find("ready") != std::string::npos;
    }));
    box.startFilter();

    std::vector<ChildProcess> senders;
    for (int i = 0; i < 4; ++i) {
        auto sender = ChildProcess::start(FilterSandbox::python(),
                                          {(box.home() / "burst-allowed.py").string(), "send-udp", "127.0.0.1", "9701", "2500"},
                                          box.agentSandbox().environment(), box.home() / "output");
        senders.push_back(std::move(*sender));
    }
    senders.push_back(box.startPeer({"send-udp", "127.0.0.1", "9702", "2000"}));
    for (auto& sender : senders) ASSERT_EQ(sender.waitFor(std::chrono::milliseconds(60s)), 0);
    ASSERT_TRUE(allowedCounter.waitFor(std::chrono::milliseconds(60s)).has_value());
    ASSERT_TRUE(unknownCounter.waitFor(std::chrono::milliseconds(60s)).has_value());
    EXPECT_GE(totalIn(allowedCounter.standardOutput()), 9990u) << allowedCounter.standardOutput();
    EXPECT_EQ(totalIn(unknownCounter.standardOutput()), 0u) << unknownCounter.standardOutput();
}

TEST_F(FilterPromises, OtherFirewallsRulesAreTheSameAfterStartKillRestartAndStop) {
    // The way ufw, firewalld and container runtimes leave theirs: an nft
    // table of its own and iptables rules with comments in built-in chains.
    int status = 0;
    shell("nft add table inet otherfw && nft add chain inet otherfw out '{ type filter hook output priority 0; }' && "
          "nft add rule inet otherfw out tcp dport 9999 counter drop comment '\"other firewall\"' && "
          "iptables -A OUTPUT -p tcp --dport 9998 -m comment --comment 'ufw-user-output' -j ACCEPT && "
          "iptables -N DOCKER-USER && iptables -A DOCKER-USER -j RETURN",
          &status);
    ASSERT_EQ(status, 0) << "cannot set up another firewall's rules here";
    const std::string before = shell("nft list ruleset");
    const auto others = [] { return shell("nft list table inet otherfw; iptables-save | grep -v '^#'"); };
    const std::string othersBefore = others();

    box.startFilter();
    EXPECT_EQ(others(), othersBefore);
    ASSERT_EQ(box.stopFilter(SIGKILL), 128 + SIGKILL);
    EXPECT_EQ(others(), othersBefore);
    box.startFilter();
    EXPECT_EQ(others(), othersBefore);
    ASSERT_EQ(box.stopFilter(), 0);
    EXPECT_EQ(shell("nft list ruleset"), before);
}

TEST_F(FilterPromises, TheKernelsOwnTunnelTrafficIsDecidedAtOnceAndRecordedAsTheKernels) {
    // A peer namespace behind a veth link, and a VXLAN device whose
    // encapsulated datagrams the kernel itself sends to it.
    auto peer = ChildProcess::start("/usr/bin/unshare", {"-n", "sleep", "120"}, box.agentSandbox().environment(),
                                    box.home() / "output");
    ASSERT_TRUE(peer);
    const std::string inPeer = "nsenter -t " + std::to_string(peer->pid()) + " -n ";
    int status = 0;
    shell("ip link add qfa type veth peer name qfb && ip link set qfb netns " + std::to_string(peer->pid()) +
              " && ip addr add 10.77.0.1/24 dev qfa && ip link set qfa up && " + inPeer +
              "ip addr add 10.77.0.2/24 dev qfb && " + inPeer + "ip link set qfb up",
          &status);
    if (status != 0) GTEST_SKIP() << "cannot make a veth link and a VXLAN device here";
    box.writeRules({testRule("Allow peers into the tunnel", RuleAction::allow, FilterSandbox::python(),
                             {D::ipCIDR("10.88.0.0/24")})});

    // Blocking first, for the same reason.
    for (const char* mode : {"blocking", "permissive"}) {
        SCOPED_TRACE(mode);
        box.writeConfiguration(std::string(R"({"unknownTrafficMode": ")") + mode + "\"}");
        auto counter = ChildProcess::start("/usr/bin/nsenter",
                                           {"-t", std::to_string(peer->pid()), "-n", FilterSandbox::python(),
                                            QUILLFORT_NETPEER, "count-udp", "10.77.0.2", "4789", "5", "1", "no"},
                                           box.agentSandbox().environment(), box.home() / "output");
        ASSERT_TRUE(eventually([&] { return counter->standardOutput().find("ready") != std::string::npos; }));
        box.startFilter();
        // Made once the filter runs, so none of its datagrams passed unseen and
        // left a connection-tracking entry that would let the next one through.
        if (std::string(mode) == "blocking")
            shell("ip link add vx0 type vxlan id 42 remote 10.77.0.2 dstport 4789 dev qfa && "
                  "ip addr add 10.88.0.1/24 dev vx0 && ip link set vx0 up", &status);
        ASSERT_EQ(status, 0);
        shell("ip neigh flush dev vx0");
        // The peer's datagram is allowed; the address lookup it causes leaves as VXLAN.
        (void)box.runPeer({"send-udp", "10.88.0.2", "9", "1"});
        ASSERT_TRUE(counter->waitFor(std::chrono::milliseconds(processDeadline)).has_value());
        const bool delivered = totalIn(counter->standardOutput()) > 0;
        EXPECT_EQ(delivered, std::string(mode) == "permissive") << counter->standardOutput();
        const auto unknownTraffic = fromRawValue<UnknownTrafficMode>(mode);
        auto kernel = box.waitForEvent([&](const FlowFilterEvent& e) {
            return e.unknownTrafficMode == unknownTraffic && e.context.flow.port == 4789 && e.context.matchedProcessNode &&
                   e.context.matchedProcessNode->identity.executablePath == "[kernel]";
        });
        ASSERT_TRUE(kernel);
        EXPECT_EQ(kernel->decision->action, delivered ? FlowDecisionAction::allow : FlowDecisionAction::drop);
        ASSERT_EQ(box.stopFilter(), 0);
    }
}

TEST_F(FilterPromises, LongAPromptWaitsAsLongAsTheUserTakesWithOnePrompt) {
    box.launchAgent();
    box.startFilter();
    auto client = box.startPeer({"connect", "127.0.0.1", "9800", "90"});
    // Past 30 s the program's own SYN retransmissions have all joined the held flow.
    std::this_thread::sleep_for(32s);
    EXPECT_EQ(box.promptsWaiting(), 1);
    ASSERT_TRUE(box.answerFirstPrompt("allow-once"));
    // Nobody listens on 9800: "refused" proves the held SYN went out only now.
    ASSERT_TRUE(client.waitFor(std::chrono::milliseconds(processDeadline)).has_value());
    EXPECT_NE(client.standardOutput().find("Connection refused"), std::string::npos) << client.standardOutput();
    const auto byPrompt = [](const FlowFilterEvent& e) { return e.decisionSource == FlowFilterDecisionSource::promptResolution; };
    ASSERT_TRUE(box.waitForEvent(byPrompt));
    const auto events = box.events();
    EXPECT_EQ(std::count_if(events.begin(), events.end(), byPrompt), 1);
}

}  // namespace
}  // namespace quillfort::testing
