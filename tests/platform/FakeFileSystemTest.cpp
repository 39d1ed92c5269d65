#include "tests/testsupport/FakeFileSystem.hpp"

#include <gtest/gtest.h>

#include "tests/testsupport/TemporaryDirectory.hpp"

namespace quillfort::testing {
namespace {

using Operation = FakeFileSystem::Operation;

TEST(FakeFileSystem, NextCallFailureIsUsedUpOnce) {
    TemporaryDirectory dir;
    FakeFileSystem files;
    files.failNext(Operation::setPosixPermissions, EPERM);
    auto refused = files.setPosixPermissions(dir.path(), 0777);
    ASSERT_FALSE(refused);
    EXPECT_EQ(refused.error().code, std::errc::operation_not_permitted);
    EXPECT_TRUE(files.setPosixPermissions(dir.path(), 0777));
    EXPECT_EQ(files.calls(), (std::vector<FakeFileSystem::Call>{
                                 {Operation::setPosixPermissions, dir.path(), 0777U},
                                 {Operation::setPosixPermissions, dir.path(), 0777U}}));
}

TEST(FakeFileSystem, PathRuleHitsOnlyThatPathUntilCleared) {
    TemporaryDirectory dir;
    FakeFileSystem files;
    auto blocked = dir.path() / "blocked.json";
    files.failOn(Operation::writeFileAtomically, blocked, EROFS);
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(files.writeFileAtomically(dir.path() / "sub" / ".." / "blocked.json", "x").error().code,
                  std::errc::read_only_file_system);
    }
    EXPECT_FALSE(files.exists(blocked));
    EXPECT_TRUE(files.writeFileAtomically(dir.path() / "other.json", "x"));
    files.clearFailures();
    EXPECT_TRUE(files.writeFileAtomically(blocked, "x"));
}

}  // namespace
}  // namespace quillfort::testing
