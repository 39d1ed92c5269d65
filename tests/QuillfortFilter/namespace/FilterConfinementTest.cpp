// A root daemon among a user's files and the network's bytes: nothing the
// user plants in the shared folder makes the filter read or write anything
// else, and no answer a resolver sends stops it deciding.
#include <sys/stat.h>
#include <unistd.h>

#include <fmt/format.h>
#include <gtest/gtest.h>

#include "contracts/RuleSnapshotEnvelope.hpp"
#include "model/Json.hpp"
#include "tests/QuillfortFilter/FilterSamples.hpp"
#include "tests/QuillfortFilter/namespace/FilterSandbox.hpp"

namespace quillfort::testing {
namespace {

namespace fs = std::filesystem;
using D = RuleDestination;

constexpr uid_t nobody = 65534;

class FilterConfinement : public ::testing::Test {
protected:
    void SetUp() override {
        if (const auto& reason = namespaceSkipReason()) GTEST_SKIP() << *reason;
        if (::geteuid() != 0) GTEST_SKIP() << "the folder of another account can only be made by root";
        fs::create_directories(box.container());
        // A root-only place beside it, holding what the user must not reach.
        fs::create_directories(secrets.path());
        fs::permissions(secrets.path(), fs::perms::owner_all);
    }

    void handToNobody() {
        for (const auto& entry : fs::recursive_directory_iterator(box.home()))
            (void)::lchown(entry.path().c_str(), nobody, nobody);
        (void)::lchown(box.home().c_str(), nobody, nobody);
    }

    static std::string hexWithoutId(const Bytes8& message) {
        std::string hex;
        for (std::size_t i = 2; i < message.size(); ++i) hex += fmt::format("{:02x}", message[i]);
        return hex;
    }

    FilterSandbox box;
    TemporaryDirectory secrets;
};

TEST_F(FilterConfinement, AnEventsFileLinkedToARootFileLeavesThatFileAsItWas) {
    for (const bool hardLink : {false, true}) {
        SCOPED_TRACE(hardLink ? "hard link" : "symbolic link");
        const fs::path victim = secrets.path() / "victim";
        writeText(victim, "original");
        const fs::path planted = box.container() / "FlowFilterMonitorSnapshot.json";
        fs::remove(planted);
        hardLink ? fs::create_hard_link(victim, planted) : fs::create_symlink(victim, planted);
        handToNobody();
        (void)::chown(victim.c_str(), 0, 0);  // a hard link shares its owner: give it back to root
        box.writeConfiguration(R"({"unknownTrafficMode": "blocking"})");
        box.startFilter();
        (void)box.runPeer({"send-udp", "127.0.0.1", "9900", "1"});
        ASSERT_TRUE(box.waitForEvent([](const FlowFilterEvent& e) { return e.context.flow.port == 9900; }));

        EXPECT_EQ(readText(victim), "original");
        struct stat written {};
        ASSERT_EQ(::lstat(planted.c_str(), &written), 0);
        EXPECT_TRUE(S_ISREG(written.st_mode));
        EXPECT_EQ(written.st_uid, nobody);
        ASSERT_EQ(box.stopFilter(), 0);
    }
}

TEST_F(FilterConfinement, ASnapshotLinkedToARootOnlySnapshotLoadsNoneOfItsRules) {
    const fs::path secret = secrets.path() / "rules.json";
    Rule everything = testRule("SECRET-ALLOW-EVERYTHING", RuleAction::allow, "", {});
    writeText(secret, encodePretty(RuleSnapshotEnvelope{dateFrom(std::chrono::system_clock::now()), {everything}}));
    fs::permissions(secret, fs::perms::owner_read | fs::perms::owner_write);
    fs::create_symlink(secret, box.container() / "RuleSnapshot.json");
    handToNobody();
    box.writeConfiguration(R"({"unknownTrafficMode": "blocking"})");
    box.startFilter();

    const auto status = box.status();
    ASSERT_TRUE(status && status->ruleProblem);
    EXPECT_EQ(status->ruleCount, 0u);
    EXPECT_NE(status->ruleProblem->find("refused"), std::string::npos) << *status->ruleProblem;
    EXPECT_NE(box.runPeer({"connect", "127.0.0.1", "9901", "1"}).status, 0);
    EXPECT_EQ(box.filterLog().find("SECRET"), std::string::npos);

    // Set up, the filter keeps only what it uses: CAP_DAC_READ_SEARCH (2),
    // CAP_SETGID (6), CAP_SETUID (7), CAP_NET_ADMIN (12), CAP_SYS_PTRACE (19).
    const auto procStatus = readText(fs::path("/proc") / std::to_string(box.filterPid()) / "status").value_or("");
    for (const char* set : {"CapEff:\t", "CapPrm:\t", "CapBnd:\t"}) {
        const auto at = procStatus.find(set);
        ASSERT_NE(at, std::string::npos);
        EXPECT_EQ(std::stoull(procStatus.substr(at + 8, 16), nullptr, 16), 0x810c4ull) << set;
    }
}

TEST_F(FilterConfinement, HostileResolverAnswersLeaveTheFilterRunningAndDeciding) {
    handToNobody();
    Bytes8 selfPointer = DnsBuilder().question("loop.test").build();
    selfPointer[7] = 1;  // one answer, whose name points at itself
    const std::size_t answerAt = selfPointer.size();
    selfPointer.insert(selfPointer.end(), {0xc0, static_cast<std::uint8_t>(answerAt), 0, 1, 0, 1});
    Bytes8 pastTheEnd = DnsBuilder().question("past.test").raw({0xc0, 0xff}).build();
    Bytes8 longLabel = DnsBuilder().question("label.test").raw({64, 'a', 'a', 0}).build();
    std::string longName;
    for (int i = 0; i < 5; ++i) longName += std::string(60, 'n') + ".";
    Bytes8 tooLong = DnsBuilder().question("name.test").address(longName + "test", {1, 2, 3, 4}).build();
    Bytes8 truncated = DnsBuilder().question("cut.test").address("cut.test", {1, 2, 3, 4}).build();
    truncated.resize(truncated.size() - 2);
    // A question whose label is longer than any name's can be: the whole answer is refused.
    Bytes8 badQuestion = DnsBuilder().build();
    badQuestion[5] = 1;
    badQuestion.push_back(64);
    badQuestion.insert(badQuestion.end(), 64, 'q');
    badQuestion.insert(badQuestion.end(), {0, 0, 1, 0, 1});
    DnsBuilder many;
    many.question("many.test");
    for (int i = 0; i < 600; ++i) many.address("many.test", {10, 9, static_cast<std::uint8_t>(i / 256), static_cast<std::uint8_t>(i)});
    const std::vector<std::pair<std::string, Bytes8>> answers{{"loop.test", selfPointer},  {"past.test", pastTheEnd},
                                                              {"label.test", longLabel},   {"name.test", tooLong},
                                                              {"cut.test", truncated},     {"many.test", many.build()},
                                                              {"badq.test", badQuestion},  {"badq2.test", badQuestion}};
    std::vector<std::string> serverArguments{"dns-server", "127.0.0.53", "53"};
    for (const auto& [name, message] : answers) serverArguments.push_back(name + "=RAW:" + hexWithoutId(message));
    auto resolver = box.startPeer(serverArguments);
    ASSERT_TRUE(eventually([&] { return resolver.standardOutput().find("ready") != std::string::npos; }));
    box.writeConfiguration(R"({"unknownTrafficMode": "blocking"})");
    box.writeRules({testRule("Allow DNS", RuleAction::allow, FilterSandbox::python(), {D::portExact(53)}),
                    testRule("Allow peers to 9902", RuleAction::allow, FilterSandbox::python(), {D::portExact(9902)})});
    handToNobody();
    box.startFilter();

    for (const auto& [name, message] : answers)
        EXPECT_EQ(box.runPeer({"query", "127.0.0.53:53", name}).status, 0) << name;
    auto counter = box.startPeer({"count-udp", "127.0.0.1", "9902", "3", "1"});
    ASSERT_TRUE(eventually([&] { return counter.standardOutput().find("ready") != std::string::npos; }));
    EXPECT_EQ(box.runPeer({"send-udp", "127.0.0.1", "9902", "1"}).status, 0);
    ASSERT_TRUE(counter.waitFor(std::chrono::milliseconds(processDeadline)).has_value());
    EXPECT_NE(counter.standardOutput().find("total 1"), std::string::npos);
    // One line for all of them, however many arrive.
    const auto log = box.filterLog();
    std::size_t lines = 0;
    for (auto at = log.find("could not be read"); at != std::string::npos; at = log.find("could not be read", at + 1)) ++lines;
    EXPECT_EQ(lines, 1u) << log;
    ASSERT_TRUE(box.waitForStatus([](const auto& s) { return s.counters.dnsAnswersRefused == 2; }));
    ASSERT_EQ(box.stopFilter(), 0);
}

}  // namespace
}  // namespace quillfort::testing
