#include "QuillfortAgent/ManualMainThreadExecutor.hpp"

#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace quillfort {
namespace {

TEST(ManualMainThreadExecutor, RunsNothingUntilAskedThenEverythingInPostingOrder) {
    ManualMainThreadExecutor executor;
    std::vector<int> ran;
    std::thread poster([&] {
        executor.post([&] { ran.push_back(1); });
        executor.post([&] {
            ran.push_back(2);
            executor.post([&] { ran.push_back(4); });
        });
        executor.post([&] { ran.push_back(3); });
    });
    poster.join();
    EXPECT_TRUE(ran.empty());
    EXPECT_EQ(executor.pendingCount(), 3u);
    EXPECT_EQ(executor.runAll(), 4u);
    EXPECT_THAT(ran, ::testing::ElementsAre(1, 2, 3, 4));
    EXPECT_EQ(executor.runAll(), 0u);
}

}  // namespace
}  // namespace quillfort
