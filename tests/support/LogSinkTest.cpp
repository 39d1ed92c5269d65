#include "support/LogSink.hpp"

#include <ctime>

#include <gtest/gtest.h>

#include "support/QuillfortLogger.hpp"

namespace quillfort {
namespace {

// Only the time is checked: it is what a reader finds lines by, and it is the
// part that arithmetic can get wrong.
TEST(StderrLogSink, LineStartsWithTheLocalTimeToTheMillisecond) {
    std::tm tm{};
    tm.tm_year = 126, tm.tm_mon = 10, tm.tm_mday = 22, tm.tm_hour = 22, tm.tm_min = 31, tm.tm_sec = 5, tm.tm_isdst = -1;
    const LogRecord record{std::chrono::system_clock::from_time_t(std::mktime(&tm)) + std::chrono::milliseconds(7),
                           "com.vessimo.Quillfort", "agent", LogLevel::defaultLevel, "m"};
    EXPECT_TRUE(StderrLogSink::formatLine(record).starts_with("2026-11-22 22:31:05.007 "))
        << StderrLogSink::formatLine(record);
}

TEST(DefaultLogSink, PicksJournalOnlyUnderJournalOrWhenAsked) {
    for (auto [variable, value, journal] : {std::tuple{"HOME", "/home/a", false}, {"JOURNAL_STREAM", "8:12345", true},
                                            {"QUILLFORT_LOG_TO_JOURNAL", "1", true},
                                            {"QUILLFORT_LOG_TO_JOURNAL", "true", false}}) {
        ProcessInfo info;
        info.environment = {{variable, value}};
        const auto sink = defaultLogSink(info);
        EXPECT_EQ(dynamic_cast<JournalLogSink*>(sink.get()) != nullptr, journal) << variable << "=" << value;
        EXPECT_EQ(dynamic_cast<StderrLogSink*>(sink.get()) != nullptr, !journal) << variable << "=" << value;
    }
}

// Every folder's tests read log lines through this capture, so a capture that
// kept stale lines or left its sink installed would mislead them all.
TEST(ScopedLogCapture, ClearsOnRequestAndRestoresTheSinkBefore) {
    const auto before = currentLogSink();
    {
        ScopedLogCapture capture;
        QuillfortLogger::logger(QuillfortLogCategory::tests).log("a line");
        EXPECT_TRUE(capture.contains("a line"));
        capture.sink().clear();
        EXPECT_TRUE(capture.records().empty());
    }
    EXPECT_EQ(currentLogSink(), before);
}

}  // namespace
}  // namespace quillfort
