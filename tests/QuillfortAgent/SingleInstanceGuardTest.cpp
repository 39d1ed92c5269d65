#include "QuillfortAgent/QuillfortAgentSingleInstanceGuard.hpp"

#include <fstream>
#include <sstream>

#include <gtest/gtest.h>

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

}  // namespace
}  // namespace quillfort
