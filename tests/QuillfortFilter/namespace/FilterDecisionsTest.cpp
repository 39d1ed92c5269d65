// The filter deciding real flows of real processes: by rules, by asking the
// agent, without an agent, after a bad snapshot, and across a crash.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <gtest/gtest.h>

#include "platform/FileDescriptor.hpp"
#include "tests/QuillfortFilter/namespace/FilterSandbox.hpp"

namespace quillfort::testing {
namespace {

using D = RuleDestination;
using namespace std::chrono_literals;

// A TCP port that completes handshakes on its own (nobody accepts).
class Listener {
public:
    explicit Listener(std::uint16_t port, const char* address = "127.0.0.1")
        : socket_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in where{AF_INET, htons(port), {}, {}};
        ::inet_pton(AF_INET, address, &where.sin_addr);
        const int yes = 1;
        ::setsockopt(socket_.get(), SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
        if (::bind(socket_.get(), reinterpret_cast<sockaddr*>(&where), sizeof where) != 0 || ::listen(socket_.get(), 64) != 0)
            throw std::runtime_error("cannot listen on port " + std::to_string(port));
    }

private:
    FileDescriptor socket_;
};

// The same on ::1.
class Listener6 {
public:
    explicit Listener6(std::uint16_t port) : socket_(::socket(AF_INET6, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in6 where{};
        where.sin6_family = AF_INET6;
        where.sin6_port = htons(port);
        where.sin6_addr = in6addr_loopback;
        if (::bind(socket_.get(), reinterpret_cast<sockaddr*>(&where), sizeof where) != 0 || ::listen(socket_.get(), 8) != 0)
            throw std::runtime_error("cannot listen on [::1]:" + std::to_string(port));
    }

private:
    FileDescriptor socket_;
};

class FilterDecisions : public ::testing::Test {
protected:
    void SetUp() override {
        if (const auto& reason = namespaceSkipReason()) GTEST_SKIP() << *reason;
    }

    bool connects(std::uint16_t port, const char* timeout = "1.5") {
        return box.runPeer({"connect", "127.0.0.1", std::to_string(port), timeout}).status == 0;
    }

    static auto toPort(std::uint16_t port) {
        return [port](const FlowFilterEvent& event) { return event.context.flow.port == port && event.decision; };
    }

    FilterSandbox box;
};

TEST_F(FilterDecisions, RulesDecideAndEveryDecisionIsRecordedWithItsSourceAndProcess) {
    box.writeConfiguration(R"({"unknownTrafficMode": "blocking"})");
    const Rule allowRule = testRule("Allow peers to 9001", RuleAction::allow, FilterSandbox::python(), {D::portExact(9001)});
    box.writeRules({allowRule,
                    testRule("Drop peers to 9002", RuleAction::drop, FilterSandbox::python(), {D::portExact(9002)})});
    Listener allowed(9001), dropped(9002), unknown(9003);
    box.startFilter();

    EXPECT_TRUE(connects(9001));
    EXPECT_FALSE(connects(9002));
    EXPECT_FALSE(connects(9003));
    Listener6 allowed6(9001);
    EXPECT_EQ(box.runPeer({"connect", "::1", "9001", "1.5"}).status, 0);

    auto allow = box.waitForEvent(toPort(9001));
    ASSERT_TRUE(allow);
    EXPECT_EQ(allow->decision->action, FlowDecisionAction::allow);
    EXPECT_EQ(allow->decisionSource, FlowFilterDecisionSource::explicitRule);
    EXPECT_EQ(allow->decision->matchedRuleID, allowRule.id);
    const auto& process = allow->context.matchedProcessNode;
    ASSERT_TRUE(process);
    EXPECT_EQ(process->identity.executablePath, FilterSandbox::python());
    EXPECT_EQ(process->identity.argv.at(2), "connect");
    ASSERT_FALSE(allow->context.ancestorChain.empty());  // the test binary that started it
    EXPECT_EQ(allow->context.ancestorChain.front().identity.pid, ::getpid());

    auto overIPv6 = box.waitForEvent([](const FlowFilterEvent& e) {
        return e.context.flow.remoteEndpoint && e.context.flow.remoteEndpoint->host == "::1";
    });
    ASSERT_TRUE(overIPv6);
    EXPECT_EQ(overIPv6->decision->matchedRuleID, allowRule.id);
    EXPECT_EQ(overIPv6->context.matchedProcessNode->identity.executablePath, FilterSandbox::python());

    auto drop = box.waitForEvent(toPort(9002));
    ASSERT_TRUE(drop);
    EXPECT_EQ(drop->decision->action, FlowDecisionAction::drop);
    EXPECT_EQ(drop->decision->reasonCode, "explicit_rule_drop");
    auto unknownFlow = box.waitForEvent(toPort(9003));
    ASSERT_TRUE(unknownFlow);
    EXPECT_EQ(unknownFlow->decisionSource, FlowFilterDecisionSource::defaultBlockingDrop);
}

TEST_F(FilterDecisions, APromptHoldsOnlyItsFlowsAndOneAnswerDecidesEveryFlowLikeIt) {
    box.launchAgent();
    box.writeRules({testRule("Allow peers to 9001", RuleAction::allow, FilterSandbox::python(), {D::portExact(9001)})});
    Listener other(9001);
    auto counter = box.startPeer({"count-udp", "127.0.0.1", "9100", "20", "3"});
    ASSERT_TRUE(eventually([&] { return counter.standardOutput().find("ready") != std::string::npos; }));
    box.startFilter();

    // Three processes of one program, one destination: one prompt.
    for (int sender = 0; sender < 3; ++sender)
        EXPECT_EQ(box.runPeer({"send-udp", "127.0.0.1", "9100", "1"}).status, 0);
    ASSERT_TRUE(box.waitForStatus([](const auto& s) { return s.counters.packetsHeld == 3; }));
    EXPECT_EQ(box.promptsWaiting(), 1) << box.filterLog();
    // Nothing of a held flow passes, and other flows do not wait.
    EXPECT_TRUE(connects(9001));
    EXPECT_EQ(counter.standardOutput().find("got"), std::string::npos);

    ASSERT_TRUE(box.answerFirstPrompt("allow-once"));
    ASSERT_TRUE(counter.waitFor(std::chrono::milliseconds(processDeadline)).has_value());
    EXPECT_NE(counter.standardOutput().find("total 3"), std::string::npos) << counter.standardOutput();
    auto answered = box.waitForEvent([](const FlowFilterEvent& e) {
        return e.decisionSource == FlowFilterDecisionSource::promptResolution;
    });
    ASSERT_TRUE(answered);
    EXPECT_EQ(answered->decision->reasonCode, "prompt_resolved_allow_temporary_decision");
    EXPECT_TRUE(answered->decision->promptID);
}

TEST_F(FilterDecisions, AProcessThatExitedBeforeItsPacketWasReadIsStillNamed) {
    box.writeConfiguration(R"({"unknownTrafficMode": "blocking"})");
    box.startFilter();
    ASSERT_TRUE(box.status());
    if (box.status()->attribution != "socket-owner programs")
        GTEST_SKIP() << "the socket-owner kernel programs cannot run here: " << box.filterLog();

    box.pauseFilter(true);
    EXPECT_EQ(box.runPeer({"send-udp", "127.0.0.1", "9200", "1"}).status, 0);  // sent, and gone
    box.pauseFilter(false);
    auto event = box.waitForEvent(toPort(9200));
    ASSERT_TRUE(event);
    ASSERT_TRUE(event->context.matchedProcessNode);
    EXPECT_EQ(event->context.matchedProcessNode->state, ProcessState::exited);
    EXPECT_EQ(event->context.matchedProcessNode->identity.executablePath, FilterSandbox::python());
    // And by the script it ran, so that a rule for the script still applies.
    EXPECT_EQ(event->context.matchedProcessNode->identity.scriptPath, QUILLFORT_NETPEER);
}

TEST_F(FilterDecisions, AFlowCarriesTheNameItsProgramAskedForAndARuleForThatNameDecidesTheNext) {
    box.launchAgent();
    box.writeRules({testRule("Allow DNS", RuleAction::allow, FilterSandbox::python(), {D::portExact(53)})});
    Listener edge(9300, "127.0.0.9");
    auto resolver = box.startPeer({"dns-server", "127.0.0.53", "53", "www.example.test=CNAME:edge.cdn.test",
                                   "edge.cdn.test=A:127.0.0.9"});
    ASSERT_TRUE(eventually([&] { return resolver.standardOutput().find("ready") != std::string::npos; }));
    box.startFilter();

    auto client = box.startPeer({"resolve-connect", "127.0.0.53:53", "www.example.test", "9300", "10"});
    ASSERT_TRUE(eventually([&] { return box.agentSandbox().status() && box.agentSandbox().status()->activePrompt; }));
    // The prompt names what the program asked for, not the edge behind it.
    EXPECT_EQ(box.agentSandbox().status()->activePrompt->host, "www.example.test");
    ASSERT_TRUE(box.answerFirstPrompt("allow-permanent"));
    EXPECT_EQ(client.waitFor(std::chrono::milliseconds(processDeadline)), 0);
    auto first = box.waitForEvent(toPort(9300));
    ASSERT_TRUE(first);
    EXPECT_EQ(first->context.matchedHostname, "www.example.test");
    EXPECT_EQ(first->context.dnsConfidence, DNSConfidence::exact);

    // The agent's rule names the asked host; the next connection follows it at once.
    ASSERT_TRUE(box.waitForStatus([](const auto& s) { return s.ruleCount == 2; }));
    EXPECT_EQ(box.runPeer({"resolve-connect", "127.0.0.53:53", "www.example.test", "9300", "5"}).status, 0);
    EXPECT_EQ(box.promptsWaiting(), 0);
}

TEST_F(FilterDecisions, WithoutAnAgentAPromptGetsTheFallbackAtOnce) {
    auto counter = box.startPeer({"count-udp", "127.0.0.1", "9500", "3", "1"});
    ASSERT_TRUE(eventually([&] { return counter.standardOutput().find("ready") != std::string::npos; }));
    box.startFilter();
    EXPECT_EQ(box.runPeer({"send-udp", "127.0.0.1", "9500", "1"}).status, 0);
    auto event = box.waitForEvent(toPort(9500));
    ASSERT_TRUE(event);
    EXPECT_EQ(event->decisionSource, FlowFilterDecisionSource::promptFallback);
    EXPECT_EQ(event->decision->reasonCode, "prompt_agent_unavailable_drop");
    (void)counter.waitFor(std::chrono::milliseconds(processDeadline));
    EXPECT_NE(counter.standardOutput().find("total 0"), std::string::npos);
}

TEST_F(FilterDecisions, ADropRuleOutlivesACorruptSnapshotAndARestart) {
    box.writeConfiguration(R"({"unknownTrafficMode": "permissive"})");
    box.writeRules({testRule("Drop peers to 9400", RuleAction::drop, FilterSandbox::python(), {D::portExact(9400)})});
    Listener target(9400);
    box.startFilter();
    EXPECT_FALSE(connects(9400));

    writeText(box.container() / "RuleSnapshot.json", "{\"generatedAt\": \"2026-");  // a torn write
    ASSERT_TRUE(box.waitForStatus([](const auto& s) { return s.ruleProblem.has_value(); }));
    EXPECT_FALSE(connects(9400));

    ASSERT_EQ(box.stopFilter(), 0);
    box.startFilter();
    ASSERT_TRUE(box.status());
    EXPECT_EQ(box.status()->ruleSource, "last good copy");
    EXPECT_FALSE(connects(9400));
    EXPECT_NE(box.filterLog().find("keeping the 1 rules last loaded"), std::string::npos) << box.filterLog();
}

TEST_F(FilterDecisions, AKilledFilterPassesOrDropsNewFlowsAsChosenAndARestartReplacesItsTable) {
    box.writeConfiguration(R"({"unknownTrafficMode": "blocking"})");
    Listener target(9600);
    for (const bool failClosed : {false, true}) {
        SCOPED_TRACE(failClosed ? "fail-closed" : "fail-open");
        box.startFilter(failClosed ? std::vector<std::string>{"--fail-closed"} : std::vector<std::string>{});
        EXPECT_FALSE(connects(9600));
        ASSERT_EQ(box.stopFilter(SIGKILL), 128 + SIGKILL);
        const auto tables = shell("nft list tables");
        EXPECT_EQ(tables.find("quillfort") != std::string::npos, failClosed) << tables;
        EXPECT_EQ(connects(9600), !failClosed);

        box.startFilter(failClosed ? std::vector<std::string>{"--fail-closed"} : std::vector<std::string>{});
        EXPECT_EQ(shell("nft list tables | grep -c quillfort"), "1\n");
        EXPECT_FALSE(connects(9600));
        ASSERT_EQ(box.stopFilter(), 0);
        EXPECT_EQ(shell("nft list tables | grep -c quillfort"), "0\n");
    }
}

}  // namespace
}  // namespace quillfort::testing
