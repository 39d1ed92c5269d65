// The real quillfort-agent in a temporary home, driven only through its files
// and its loopback socket, for what only a whole process shows: what it maps,
// one instance per user, signals, a kill in the middle of a burst and
// descriptor exhaustion. How requests are read and answered is the service
// host's tests'.
#include <arpa/inet.h>
#include <fcntl.h>
#include <grp.h>
#include <netinet/in.h>
#include <pwd.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include <atomic>
#include <filesystem>
#include <iterator>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "contracts/PromptFrame.hpp"
#include "contracts/QuillfortPromptListenerRecord.hpp"
#include "contracts/RuleSnapshotEnvelope.hpp"
#include "model/Json.hpp"
#include "tests/testsupport/AgentSandbox.hpp"
#include "tests/testsupport/ModelSamples.hpp"

namespace quillfort {
namespace {

using namespace quillfort::testing;
using ::testing::HasSubstr;
using ::testing::Not;
namespace fs = std::filesystem;

Environment directive(const std::string& answer) { return {{"QUILLFORT_AGENT_AUTOMATION_RESPONSE", answer}}; }

std::string frameFor(std::uint64_t n, const std::string& host = "api.example.com") {
    return *encodeFrame(encodeCompact(sampleEnvelope(n, host)));
}

fs::path readManifestRequestsDirectory(const fs::path& manifest) {
    const auto record = decodeJson<QuillfortPromptListenerRecord>(readText(manifest).value_or(""));
    return record && record->requestsDirectoryPath ? fs::path(*record->requestsDirectoryPath) : fs::path();
}

struct OtherUserProbe {
    int readStatusError = 0;    // errno of opening the status file
    int writeRequestError = 0;  // errno of creating a file among the requests
    std::string secondReply;    // all that came back on the second of two connections
};

// Forks a child that becomes `uid` and `gid` (no other groups) and, with
// system calls only, tries the shared folder and sends `frame` over two
// loopback connections; its findings come back through a pipe.
std::optional<OtherUserProbe> probeAsOtherUser(uid_t uid, gid_t gid, std::uint16_t port, const std::string& frame,
                                               const fs::path& statusFile, const fs::path& plantedRequest) {
    int channel[2];
    if (::pipe(channel) != 0) return std::nullopt;
    const pid_t child = ::fork();
    if (child == 0) {
        ::close(channel[0]);
        if (::setgroups(0, nullptr) != 0 || ::setgid(gid) != 0 || ::setuid(uid) != 0) ::_exit(2);
        int errors[2] = {0, 0};
        const int status = ::open(statusFile.c_str(), O_RDONLY | O_CLOEXEC);
        errors[0] = status < 0 ? errno : 0;
        const int planted = ::open(plantedRequest.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
        errors[1] = planted < 0 ? errno : 0;
        static char reply[64 * 1024];
        ssize_t length = 0;
        for (int attempt = 0; attempt < 2; ++attempt) {
            const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
            sockaddr_in address{};
            address.sin_family = AF_INET;
            address.sin_port = htons(port);
            address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
            if (::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) ::_exit(3);
            if (::send(fd, frame.data(), frame.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(frame.size())) ::_exit(4);
            ::shutdown(fd, SHUT_WR);
            length = 0;
            for (ssize_t got = 1; got > 0 && length < static_cast<ssize_t>(sizeof reply); length += got) {
                got = ::recv(fd, reply + length, sizeof reply - static_cast<std::size_t>(length), 0);
                if (got < 0) ::_exit(5);
            }
            ::close(fd);
        }
        if (::write(channel[1], errors, sizeof errors) != sizeof errors || ::write(channel[1], reply, length) != length)
            ::_exit(6);
        ::_exit(0);
    }
    ::close(channel[1]);
    OtherUserProbe probe;
    std::string received;
    char chunk[4096];
    for (ssize_t got; (got = ::read(channel[0], chunk, sizeof chunk)) > 0;) received.append(chunk, got);
    ::close(channel[0]);
    int status = 0;
    if (child < 0 || ::waitpid(child, &status, 0) != child || !WIFEXITED(status) || WEXITSTATUS(status) != 0 ||
        received.size() < 2 * sizeof(int)) {
        return std::nullopt;
    }
    std::memcpy(&probe.readStatusError, received.data(), sizeof(int));
    std::memcpy(&probe.writeRequestError, received.data() + sizeof(int), sizeof(int));
    probe.secondReply = received.substr(2 * sizeof(int));
    return probe;
}

class AgentEndToEnd : public ::testing::Test {
protected:
    void SetUp() override {
        if (auto reason = AgentSandbox::skipReason()) GTEST_SKIP() << *reason;
    }
    void TearDown() override {
        if (HasFailure()) std::cerr << "--- agent standard error ---\n" << sandbox_.agentLog() << '\n';
    }

    AgentSandbox sandbox_;
};

// Headless the agent maps no Qt library: asked to, without a display, and
// with an X display that does not answer.
TEST(AgentEndToEndHeadless, MapsNoQtWhateverMadeItHeadless) {
    if (auto reason = AgentSandbox::skipReason()) GTEST_SKIP() << *reason;
    const std::string deadDisplay = ":59321";
    const struct {
        std::vector<std::string> arguments;
        Environment environment;
        std::string said;
    } cases[] = {
        {{"--headless"}, {{"DISPLAY", deadDisplay}}, "Launching Quillfort agent"},
        {{}, {}, "no display found"},
        {{}, {{"DISPLAY", deadDisplay}}, "cannot open the X display " + deadDisplay},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.said);
        AgentSandbox sandbox;
        auto& agent = sandbox.launchAgent(c.environment, c.arguments);
        const auto maps = readText(fs::path("/proc") / std::to_string(agent.pid()) / "maps").value_or("");
        ASSERT_THAT(maps, HasSubstr("/quillfort-agent"));
        EXPECT_THAT(maps, Not(HasSubstr("libQt")));
        EXPECT_THAT(sandbox.agentLog(), HasSubstr(c.said));
    }
}

// What a process of another user sees: the agent refuses its loopback
// prompts (logging the user once) unless its group is trusted, and it can
// neither read nor write the shared folder, even in a home others may enter
// and with the folders above it left open by an older agent.
TEST(AgentEndToEndOtherUser, IsRefusedOverLoopbackAndKeptOutOfTheSharedFolder) {
    if (auto reason = AgentSandbox::skipReason()) GTEST_SKIP() << *reason;
    const passwd* nobody = ::getpwnam("nobody");
    const group* nogroup = nobody ? ::getgrgid(nobody->pw_gid) : nullptr;
    if (::geteuid() != 0 || !nogroup) {
        GTEST_SKIP() << "running a client as another user needs root and a 'nobody' account with a group";
    }
    const uid_t uid = nobody->pw_uid;
    const gid_t gid = nobody->pw_gid;
    const std::string groupName = nogroup->gr_name;

    for (const bool groupTrusted : {false, true}) {
        SCOPED_TRACE(groupTrusted);
        AgentSandbox sandbox;
        fs::permissions(sandbox.home(), fs::perms(0755));
        const auto library = sandbox.home() / "Library";
        fs::create_directories(library / "Group Containers");
        for (const auto& folder : {library, library / "Group Containers"}) fs::permissions(folder, fs::perms(0755));
        std::vector<std::string> arguments{"--headless"};
        if (groupTrusted) arguments.insert(arguments.end(), {"--trusted-group", groupName});
        sandbox.launchAgent(directive("allow-once"), arguments);

        const auto requests = readManifestRequestsDirectory(sandbox.manifestFile());
        const auto probe = probeAsOtherUser(uid, gid, sandbox.port(), frameFor(40), sandbox.statusFile(),
                                            requests / "planted.json");
        ASSERT_TRUE(probe) << "the probe as uid " << uid << " did not finish";
        EXPECT_EQ(probe->readStatusError, EACCES);
        EXPECT_EQ(probe->writeRequestError, EACCES);
        const auto answer = decodeResponseFrame(probe->secondReply);
        ASSERT_TRUE(answer) << probe->secondReply;
        EXPECT_EQ(answer->promptID, sampleUuid(40));
        if (groupTrusted) {
            EXPECT_TRUE(answer->response);
        } else {
            EXPECT_FALSE(answer->response);
            EXPECT_THAT(answer->errorMessage.value_or(""),
                        HasSubstr("takes prompts only from root and its own user (uid 0); this connection comes "
                                  "from uid " + std::to_string(uid)));
            const auto log = sandbox.agentLog();
            EXPECT_THAT(log, Not(HasSubstr("Auto-resolved prompt")));
            const std::string refusal = "Refusing loopback prompts from uid " + std::to_string(uid);
            EXPECT_EQ(log.find(refusal), log.rfind(refusal)) << "logged more than once";
            EXPECT_THAT(log, HasSubstr(refusal));
        }
        for (const auto& folder : {library, library / "Group Containers"}) {
            EXPECT_EQ(fs::status(folder).permissions(), fs::perms(0700)) << folder;
        }
        // Not readable by others, whatever the folders above it allow.
        EXPECT_EQ(fs::status(sandbox.statusFile()).permissions() & fs::perms(0077), fs::perms::none);
    }
}

TEST_F(AgentEndToEnd, BadOptionsEndTheLaunchWithStatusTwo) {
    const std::vector<std::string> cases[] = {
        {"--no-such-option"}, {"--loopback-port", "70000"}, {"--trusted-group", "no-such-group-of-quillfort"}};
    for (const auto& arguments : cases) {
        auto launch = sandbox_.startAgent(arguments);
        EXPECT_EQ(launch.waitFor(processDeadline), 2) << arguments.front();
        EXPECT_THAT(launch.standardError(), HasSubstr(arguments.front())) << arguments.front();
    }
}

TEST_F(AgentEndToEnd, ListenerKeepsServingAfterRunningOutOfDescriptors) {
    auto& agent = sandbox_.launchAgent(directive("allow-once"));
    // Leave the agent a few descriptors only, then connect more clients than that.
    const auto fds = fs::path("/proc") / std::to_string(agent.pid()) / "fd";
    const auto open = static_cast<rlim_t>(std::distance(fs::directory_iterator(fds), fs::directory_iterator{}));
    const rlimit tight{.rlim_cur = open + 3, .rlim_max = open + 3};
    ASSERT_EQ(::prlimit(agent.pid(), RLIMIT_NOFILE, &tight, nullptr), 0);
    {
        std::vector<std::unique_ptr<LoopbackTestClient>> idle;
        for (int i = 0; i < 12; ++i) {
            idle.push_back(std::make_unique<LoopbackTestClient>(sandbox_.port()));
            ASSERT_TRUE(idle.back()->connected());
        }
        ASSERT_TRUE(sandbox_.waitForAgentLog("Loopback prompt connection failed: "));
    }

    const auto answer = decodeResponseFrame(exchangeFrames(sandbox_.port(), {frameFor(16)}).value_or(""));
    ASSERT_TRUE(answer);
    EXPECT_EQ(answer->promptID, sampleUuid(16));
    EXPECT_FALSE(agent.waitFor(std::chrono::milliseconds(0)));
}

// A second launch gives way at once and leaves the lock alone. The coordinator
// still holds the reply callbacks (and with them the connections) of prompts
// nobody answered when the agent ends; the files stay for the next launch to replace.
TEST_F(AgentEndToEnd, SecondLaunchGivesWayAndSigtermEndsEveryWaitingConnectionKeepingTheFiles) {
    auto& agent = sandbox_.launchAgent();
    const auto lockFile = sandbox_.container() / "QuillfortPromptBridge" / "QuillfortAgent.lock";
    ASSERT_EQ(readText(lockFile), std::to_string(agent.pid()) + "\n");
    auto second = sandbox_.startAgent({"--headless", "--loopback-port", "0"});
    EXPECT_EQ(second.waitFor(processDeadline), 0);
    EXPECT_EQ(readText(lockFile), std::to_string(agent.pid()) + "\n");
    EXPECT_EQ(sandbox_.status()->statusText, "Prompt bridge ready.");

    // The first agent still serves: every client below is queued.
    std::vector<std::unique_ptr<LoopbackTestClient>> waiting;
    for (std::uint64_t n = 30; n < 35; ++n) {
        waiting.push_back(std::make_unique<LoopbackTestClient>(sandbox_.port()));
        ASSERT_TRUE(waiting.back()->connected());
        ASSERT_TRUE(waiting.back()->send(frameFor(n)));
        ASSERT_TRUE(sandbox_.waitForAgentLog("Queued prompt " + sampleUuid(n).uppercaseString()));
    }
    agent.sendSignal(SIGTERM);
    EXPECT_EQ(agent.waitFor(processDeadline), 0);
    for (auto& client : waiting) EXPECT_EQ(client->receiveAll(), std::optional<std::string>(""));
    EXPECT_TRUE(fs::exists(sandbox_.manifestFile()));
    EXPECT_TRUE(fs::exists(sandbox_.statusFile()));
}

// The snapshot is saved whole, and before the answer leaves: a kill at any
// moment leaves a file that parses and holds the rule of every answer sent.
TEST_F(AgentEndToEnd, SigkillInABurstOfPermanentAnswersLosesNoAnsweredRule) {
    auto& agent = sandbox_.launchAgent(directive("allow-permanent"));
    std::atomic<bool> stop{false};
    std::mutex mutex;
    std::vector<std::string> answeredHosts;
    std::thread burst([&] {
        for (std::uint64_t n = 100; !stop; ++n) {
            const auto host = "burst-" + std::to_string(n) + ".example";
            const auto answer = decodeResponseFrame(exchangeFrames(sandbox_.port(), {frameFor(n, host)}).value_or(""));
            if (!answer || !answer->response) return;  // the agent is gone
            const std::lock_guard lock(mutex);
            answeredHosts.push_back(host);
        }
    });
    const bool enough = eventually([&] {
        const std::lock_guard lock(mutex);
        return answeredHosts.size() >= 20;
    });
    agent.sendSignal(SIGKILL);
    stop = true;
    burst.join();
    ASSERT_TRUE(enough);

    const auto text = readText(sandbox_.ruleSnapshotFile()).value_or("");
    const auto snapshot = decodeJson<RuleSnapshotEnvelope>(text);
    ASSERT_TRUE(snapshot) << text;
    EXPECT_GE(snapshot->rules.size(), answeredHosts.size());
    for (const auto& host : answeredHosts) EXPECT_THAT(text, HasSubstr(host + ":443")) << host;
}

}  // namespace
}  // namespace quillfort
