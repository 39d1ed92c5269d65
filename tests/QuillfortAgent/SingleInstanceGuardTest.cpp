#include "QuillfortAgent/QuillfortAgentSingleInstanceGuard.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <sstream>

#include <gtest/gtest.h>

#include "QuillfortAgent/QuillfortAgentBootstrap.hpp"
#include "support/LogSink.hpp"
#include "tests/testsupport/FakeFileSystem.hpp"
#include "tests/testsupport/TemporaryDirectory.hpp"

namespace quillfort {
namespace {

using testing::FakeFileSystem;
using testing::TemporaryDirectory;

std::string contentOf(const std::filesystem::path& path) {
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

struct GuardHome {
    TemporaryDirectory home;
    FakeFileSystem fileSystem{home.path()};
    std::filesystem::path lockFile = home.path() / "Library" / "Group Containers" /
                                     "group.com.vessimo.Quillfort.shared" / "QuillfortPromptBridge" /
                                     "QuillfortAgent.lock";
};

TEST(SingleInstanceGuard, FirstInstanceTakesTheLockAndWritesItsIdentifier) {
    GuardHome setup;
    ASSERT_EQ(QuillfortAgentSingleInstanceGuard::lockFileURL(setup.fileSystem, std::nullopt), setup.lockFile);

    const QuillfortAgentSingleInstanceGuard guard(setup.fileSystem, std::nullopt, 4711);
    EXPECT_TRUE(guard.shouldActivateCurrentInstance());
    EXPECT_GE(guard.fileDescriptor(), 0);
    EXPECT_EQ(contentOf(setup.lockFile), "4711\n");
    struct stat info{};
    ASSERT_EQ(::stat(setup.lockFile.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0644u & ~[] {
        const auto mask = ::umask(0);
        ::umask(mask);
        return mask;
    }());
}

TEST(SingleInstanceGuard, SecondInstanceGivesWayAndTheStaleIdentifierIsReplacedOnceTheLockIsFree) {
    GuardHome setup;
    {
        const QuillfortAgentSingleInstanceGuard first(setup.fileSystem, std::nullopt, 123456789);
        ASSERT_TRUE(first.shouldActivateCurrentInstance());
        {
            const QuillfortAgentSingleInstanceGuard second(setup.fileSystem, std::nullopt, 200);
            EXPECT_FALSE(second.shouldActivateCurrentInstance());
            EXPECT_GE(second.fileDescriptor(), 0);
        }
        EXPECT_EQ(contentOf(setup.lockFile), "123456789\n");
        // Going away did not release the first instance's lock either.
        const QuillfortAgentSingleInstanceGuard third(setup.fileSystem, std::nullopt, 300);
        EXPECT_FALSE(third.shouldActivateCurrentInstance());
    }
    const QuillfortAgentSingleInstanceGuard later(setup.fileSystem, std::nullopt, 42);
    EXPECT_TRUE(later.shouldActivateCurrentInstance());
    EXPECT_EQ(contentOf(setup.lockFile), "42\n");
}

// A lock file that cannot be truncated still gets the identifier: the guard
// truncates, then writes, whatever the truncation did.
TEST(SingleInstanceGuard, IdentifierIsWrittenWhenTruncationFails) {
    GuardHome setup;
    std::filesystem::create_directories(setup.lockFile.parent_path());
    ASSERT_EQ(::mkfifo(setup.lockFile.c_str(), 0644), 0);

    const QuillfortAgentSingleInstanceGuard guard(setup.fileSystem, std::nullopt, 4711);
    ASSERT_TRUE(guard.shouldActivateCurrentInstance());
    const int reader = ::open(setup.lockFile.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    ASSERT_GE(reader, 0);
    char buffer[16] = {};
    const auto count = ::read(reader, buffer, sizeof buffer);
    ::close(reader);
    EXPECT_EQ(std::string(buffer, count > 0 ? static_cast<std::size_t>(count) : 0), "4711\n");
}

TEST(SingleInstanceGuard, WithoutContainerTheLockLivesInTheTemporaryDirectory) {
    TemporaryDirectory temporary;
    FakeFileSystem fileSystem;  // no home of any kind
    fileSystem.setTemporaryDirectory(temporary.path());

    EXPECT_EQ(QuillfortAgentSingleInstanceGuard::lockFileURL(fileSystem, std::nullopt),
              temporary.path() / "QuillfortAgent.lock");
    const QuillfortAgentSingleInstanceGuard guard(fileSystem, std::nullopt, 7);
    EXPECT_TRUE(guard.shouldActivateCurrentInstance());
    EXPECT_EQ(contentOf(temporary.path() / "QuillfortAgent.lock"), "7\n");
}

TEST(SingleInstanceGuard, FailsOpenWhenTheLockDirectoryCannotBeMadeOrTheFileOpened) {
    for (const bool directoryFails : {true, false}) {
        GuardHome setup;
        if (directoryFails)
            setup.fileSystem.failOn(FakeFileSystem::Operation::createDirectories, setup.lockFile.parent_path(),
                                    EACCES);
        else
            std::filesystem::create_directories(setup.lockFile);  // a directory cannot be opened for writing

        const QuillfortAgentSingleInstanceGuard guard(setup.fileSystem, std::nullopt, 1);
        EXPECT_TRUE(guard.shouldActivateCurrentInstance()) << directoryFails;
        EXPECT_EQ(guard.fileDescriptor(), -1) << directoryFails;
    }
}

TEST(AgentBootstrap, LaunchLineNamesVerboseLoggingOnlyForExactlyOne) {
    const std::pair<std::map<std::string, std::string>, std::string> cases[] = {
        {{}, "false"},
        {{{"QUILLFORT_VERBOSE_LOGGING", "1"}}, "true"},
        {{{"QUILLFORT_VERBOSE_LOGGING", "true"}}, "false"}};
    for (const auto& [environment, verbose] : cases) {
        const ScopedLogCapture logs;
        QuillfortAgentBootstrap::make({.environment = environment, .arguments = {}, .processIdentifier = 1})
            .logLaunch();
        ASSERT_EQ(logs.records().size(), 1u);
        EXPECT_EQ(logs.records()[0].message, "Launching Quillfort agent login-item helper. verboseLogging=" + verbose);
        EXPECT_EQ(logs.records()[0].category, "agent");
    }
}

}  // namespace
}  // namespace quillfort
