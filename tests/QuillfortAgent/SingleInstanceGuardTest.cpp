#include "QuillfortAgent/app/QuillfortAgentSingleInstanceGuard.hpp"

#include <gtest/gtest.h>

#include "tests/testsupport/ChildProcess.hpp"
#include "tests/testsupport/FakeFileSystem.hpp"
#include "tests/testsupport/TemporaryDirectory.hpp"

namespace quillfort {
namespace {

using testing::FakeFileSystem;
using testing::readText;
using testing::TemporaryDirectory;

struct GuardHome {
    TemporaryDirectory home;
    FakeFileSystem fileSystem{home.path()};
    std::filesystem::path lockFile = home.path() / "Library" / "Group Containers" /
                                     "group.com.vessimo.Quillfort.shared" / "QuillfortPromptBridge" /
                                     "QuillfortAgent.lock";
};

// The first instance takes the lock and writes its identifier; others give way
// until it is gone, and the next one replaces the stale identifier.
TEST(SingleInstanceGuard, SecondInstanceGivesWayAndTheStaleIdentifierIsReplacedOnceTheLockIsFree) {
    GuardHome setup;
    {
        const QuillfortAgentSingleInstanceGuard first(setup.fileSystem, std::nullopt, 123456789);
        ASSERT_TRUE(first.shouldActivateCurrentInstance());
        {
            const QuillfortAgentSingleInstanceGuard second(setup.fileSystem, std::nullopt, 200);
            EXPECT_FALSE(second.shouldActivateCurrentInstance());
        }
        EXPECT_EQ(readText(setup.lockFile), "123456789\n");
        // Going away did not release the first instance's lock either.
        const QuillfortAgentSingleInstanceGuard third(setup.fileSystem, std::nullopt, 300);
        EXPECT_FALSE(third.shouldActivateCurrentInstance());
    }
    const QuillfortAgentSingleInstanceGuard later(setup.fileSystem, std::nullopt, 42);
    EXPECT_TRUE(later.shouldActivateCurrentInstance());
    EXPECT_EQ(readText(setup.lockFile), "42\n");
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
