#include "QuillfortAgent/ui/QtMainThreadExecutor.hpp"

#include <array>
#include <numeric>
#include <thread>
#include <vector>

#include <QCoreApplication>
#include <QDeadlineTimer>

#include "tests/QuillfortAgent/ui/UiHarness.hpp"

namespace quillfort::ui {
namespace {

// The bridge thread and the loopback threads hand every result to the window
// through this executor; what they post must reach the loop's thread, whole
// and in each poster's order.
TEST(QtMainThreadExecutor, TasksFromOtherThreadsRunOnTheLoopThreadInEachPostersOrder) {
    testing::application();
    QtMainThreadExecutor executor;
    constexpr int posters = 4;
    constexpr int tasksEach = 200;
    const auto loopThread = std::this_thread::get_id();
    // Touched only on the loop's thread; a task run anywhere else is a race.
    std::array<std::vector<int>, posters> ran;
    int offThread = 0;

    std::vector<std::thread> threads;
    for (int poster = 0; poster < posters; ++poster) {
        threads.emplace_back([&, poster] {
            for (int task = 0; task < tasksEach; ++task) {
                executor.post([&, poster, task] {
                    if (std::this_thread::get_id() != loopThread) ++offThread;
                    ran[poster].push_back(task);
                });
            }
        });
    }
    for (auto& thread : threads) thread.join();

    QDeadlineTimer deadline(10'000);
    auto done = [&] {
        for (const auto& tasks : ran) {
            if (tasks.size() < tasksEach) return false;
        }
        return true;
    };
    while (!done() && !deadline.hasExpired()) QCoreApplication::processEvents(QEventLoop::AllEvents, 50);

    EXPECT_EQ(offThread, 0);
    std::vector<int> inOrder(tasksEach);
    std::iota(inOrder.begin(), inOrder.end(), 0);
    for (int poster = 0; poster < posters; ++poster) EXPECT_EQ(ran[poster], inOrder) << "poster " << poster;
}

TEST(QtMainThreadExecutor, APostFromTheLoopThreadNeverRunsInline) {
    testing::application();
    QtMainThreadExecutor executor;
    bool ran = false;
    executor.post([&] { ran = true; });
    EXPECT_FALSE(ran);
    QCoreApplication::processEvents();
    EXPECT_TRUE(ran);
}

}  // namespace
}  // namespace quillfort::ui
