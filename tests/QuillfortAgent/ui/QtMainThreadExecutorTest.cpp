#include "QuillfortAgent/ui/QtMainThreadExecutor.hpp"

#include <QCoreApplication>

#include "tests/QuillfortAgent/ui/UiHarness.hpp"

namespace quillfort::ui {
namespace {

// Delivery on the loop's thread in posting order is the queued call's own
// promise; what is ours is choosing it: a post never runs inline, where the
// task would re-enter the code that posted it.
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
