#include "support/QuillfortLogger.hpp"

#include <tuple>
#include <vector>

#include <gtest/gtest.h>

namespace quillfort {
namespace {

TEST(RenderLogMessage, ReplacesPlaceholdersInOrder) {
    struct Case {
        std::string_view format;
        std::vector<std::string> args;
        std::string_view expected;
    };
    const Case cases[] = {
        {"Queued prompt %{public}s for %{public}s.", {"0A1B", "example.com"}, "Queued prompt 0A1B for example.com."},
        {"Listening on %{public}s:%{public}hu.", {"127.0.0.1", "27839"}, "Listening on 127.0.0.1:27839."},
        {"visible=%{bool,public}d key=%{bool,public}d", {"true", "false"}, "visible=true key=false"},
        {"total=%{public}ld occlusion=%{public}lu", {"3", "8194"}, "total=3 occlusion=8194"},
        {"100%% of %{public}s", {"flows"}, "100% of flows"},
        {"%%{public}s then %{public}s", {"x"}, "%{public}s then x"},
        {"%{public}s and %{public}s.", {"one"}, "one and ."},  // a missing argument renders empty
        {"only %{public}s", {"a", "b", "c"}, "only a"},
        {"at 50%", {"unused"}, "at 50%"},
        {"bad %{public", {"x"}, "bad %{public"},
        {"end %{public}", {"x"}, "end %{public}"},
        {"100% sure it is %{public}s", {"x"}, "100% sure it is x"},
        {"%.*s|%zu", {"3", "abc", "5"}, "abc|5"},  // a '*' precision takes its own argument
    };
    for (const auto& c : cases) EXPECT_EQ(renderLogMessage(c.format, c.args), c.expected) << c.format;
}

TEST(LogArgumentText, RendersValuesAsThePlatformWould) {
    EXPECT_EQ(logArgumentText(false), "false");
    EXPECT_EQ(logArgumentText(static_cast<unsigned short>(27839)), "27839");
    EXPECT_EQ(logArgumentText(static_cast<const char*>(nullptr)), "(null)");
    EXPECT_EQ(logArgumentText(QuillfortLogCategory::processObserver), "processObserver");
    EXPECT_EQ(logArgumentText(Error::withMessage("The file is gone.")), "The file is gone.");
}

TEST(QuillfortLogger, RecordReachesSinkWithSubsystemCategoryAndLevel) {
    ScopedLogCapture capture;
    QuillfortLogger::logger(QuillfortLogCategory::agent).log("Queued %{public}s.", std::string("5C1A"));
    QuillfortLogger::logger(QuillfortLogCategory::ipc).error("Failed: %{public}s", Error::withMessage("Disk full"));
    using Seen = std::tuple<std::string, std::string, LogLevel, std::string>;
    std::vector<Seen> seen;
    for (const auto& r : capture.records()) seen.emplace_back(r.subsystem, r.category, r.level, r.message);
    EXPECT_EQ(seen, (std::vector<Seen>{{"com.vessimo.Quillfort", "agent", LogLevel::defaultLevel, "Queued 5C1A."},
                                       {"com.vessimo.Quillfort", "ipc", LogLevel::error, "Failed: Disk full"}}));
}

}  // namespace
}  // namespace quillfort
