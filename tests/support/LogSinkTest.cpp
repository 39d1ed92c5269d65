#include "support/LogSink.hpp"

#include <gtest/gtest.h>

#include "support/QuillfortLogger.hpp"

namespace quillfort {
namespace {

TEST(DefaultLogSink, PicksJournalOnlyUnderJournalOrWhenAsked) {
    struct Case {
        std::map<std::string, std::string> environment;
        bool journal;
    };
    const Case cases[] = {
        {{}, false},
        {{{"JOURNAL_STREAM", "8:12345"}}, true},
        {{{"QUILLFORT_LOG_TO_JOURNAL", "1"}}, true},
        {{{"QUILLFORT_LOG_TO_JOURNAL", "true"}}, false},
        {{{"QUILLFORT_LOG_TO_JOURNAL", "0"}}, false},
    };
    for (const auto& c : cases) {
        ProcessInfo info;
        info.environment = c.environment;
        info.arguments = {"/usr/bin/QuillfortAgent"};
        const auto sink = defaultLogSink(info);
        EXPECT_EQ(dynamic_cast<JournalLogSink*>(sink.get()) != nullptr, c.journal);
        EXPECT_EQ(dynamic_cast<StderrLogSink*>(sink.get()) != nullptr, !c.journal);
    }
}

TEST(ScopedLogCapture, NestedCaptureRestoresOuterSink) {
    const auto logger = QuillfortLogger::logger(QuillfortLogCategory::tests);
    const auto before = currentLogSink();
    {
        ScopedLogCapture outer;
        {
            ScopedLogCapture inner;
            logger.log("inner line");
            EXPECT_TRUE(inner.contains("inner line"));
            EXPECT_FALSE(inner.contains("inner"));  // whole messages only
            EXPECT_TRUE(inner.sink().containsMessagePart("inner"));
        }
        logger.log("outer line");
        EXPECT_TRUE(outer.contains("outer line"));
        EXPECT_FALSE(outer.contains("inner line"));
        outer.sink().clear();
        EXPECT_TRUE(outer.records().empty());
    }
    EXPECT_EQ(currentLogSink(), before);
}

TEST(SetLogSink, NullInstallsStderrSink) {
    const auto before = currentLogSink();
    setLogSink(nullptr);
    EXPECT_NE(dynamic_cast<StderrLogSink*>(currentLogSink().get()), nullptr);
    setLogSink(before);
}

}  // namespace
}  // namespace quillfort
