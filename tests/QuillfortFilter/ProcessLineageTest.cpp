#include "QuillfortFilter/process/ProcessCache.hpp"
#include "QuillfortFilter/process/ProcessLineage.hpp"

#include <fstream>

#include <fmt/format.h>
#include <gtest/gtest.h>

#include "tests/testsupport/TemporaryDirectory.hpp"

namespace quillfort {
namespace {

namespace PI = ProcessLineage;
using testing::TemporaryDirectory;

// A made-up /proc with a process whose details exercise the parser.
class SyntheticProcfs : public ::testing::Test {
protected:
    void write(const std::filesystem::path& relative, std::string_view content) {
        testing::writeText(procfs_.path() / relative, content);
    }
    void addProcess(int pid, int ppid, std::string_view comm, unsigned ttyNr, unsigned long startTicks) {
        // state ppid pgrp session tty_nr tpgid flags minflt cminflt majflt cmajflt
        // utime stime cutime cstime priority nice num_threads itrealvalue starttime vsize
        write(std::to_string(pid) + "/stat",
              fmt::format("{} ({}) S {} {} {} {} -1 4194560 1 0 0 0 0 0 0 0 20 0 1 0 {} 1000 9\n", pid, comm, ppid,
                          pid, pid, ttyNr, startTicks));
    }
    [[nodiscard]] PI::ProcfsView view() const { return PI::ProcfsView{procfs_.path(), 100, std::nullopt}; }

    TemporaryDirectory procfs_;
};

TEST_F(SyntheticProcfs, ParsesStatStatusAndCommandLine) {
    write("stat", "cpu  1 2 3\nbtime 1772366400\nprocesses 9\n");  // 2026-03-01T12:00:00Z
    addProcess(300, 200, "we (ird) name", 0x8803, 12345);            // /dev/pts/3, 123.45 s after boot
    addProcess(200, 1, "bash", 0, 500);
    addProcess(1, 0, "init", 0, 1);
    // Arguments are any bytes; what travels in JSON must be UTF-8.
    write("300/cmdline", std::string("python3\0-c\0print(\xff)\0", 20));
    write("300/status", "Name:\tx\nUid:\t1000\t1000\t1000\t1000\nGid:\t1000\n");
    std::filesystem::create_symlink("/usr/bin/python3.11 (deleted)", procfs_.path() / "300" / "exe");
    std::filesystem::create_symlink("/home/dev", procfs_.path() / "300" / "cwd");

    auto lineage = PI::inspectLineage(300, view());
    ASSERT_TRUE(lineage.has_value()) << lineage.error().description;

    const auto& identity = lineage->process.identity;
    EXPECT_EQ(identity.executablePath, "/usr/bin/python3.11");
    EXPECT_EQ(identity.argv, (std::vector<std::string>{"python3", "-c", "print(\uFFFD)"}));
    EXPECT_EQ(identity.userID, 1000u);
    EXPECT_EQ(identity.tty, "/dev/pts/3");
    EXPECT_EQ(identity.cwd, "/home/dev");
    EXPECT_EQ(iso8601String(identity.launchTime), "2026-03-01T12:02:03Z");
    EXPECT_EQ(identity.auditToken, (Bytes{0, 0, 1, 44, 0, 0, 0, 0, 0, 0, 0x30, 0x39}));
    EXPECT_EQ(identity.parentAuditToken, PI::auditToken(200, 500));

    // Nearest first, each naming the child it was reached from.
    ASSERT_EQ(lineage->ancestors.size(), 2u);
    EXPECT_EQ(lineage->ancestors[0].identity.pid, 200);
    EXPECT_EQ(lineage->ancestors[0].childAuditTokens, std::vector<Bytes>{identity.auditToken});
    EXPECT_EQ(lineage->ancestors[1].identity.pid, 1);
    EXPECT_EQ(lineage->ancestors[1].childAuditTokens, std::vector<Bytes>{PI::auditToken(200, 500)});
    // Nothing readable but stat: the executable falls back to the command name.
    EXPECT_EQ(lineage->ancestors[0].identity.executablePath, "[bash]");
    EXPECT_FALSE(lineage->ancestors[0].identity.tty.has_value());
    EXPECT_FALSE(lineage->ancestors[0].identity.userID.has_value());
}

TEST_F(SyntheticProcfs, LoopingParentsEndTheWalk) {
    addProcess(10, 11, "a", 0, 1);
    addProcess(11, 10, "b", 0, 1);
    auto lineage = PI::inspectLineage(10, view());
    ASSERT_TRUE(lineage.has_value());
    ASSERT_EQ(lineage->ancestors.size(), 1u);
    EXPECT_EQ(lineage->ancestors[0].identity.pid, 11);
}

TEST_F(SyntheticProcfs, MalformedStatAndExitingProcessesAreErrors) {
    write("12/stat", "12 (cut short");
    EXPECT_FALSE(PI::inspectProcess(12, view()).has_value());
    // A zombie, and a process on its way out (PF_EXITING): nothing left to describe.
    write("13/stat", "13 (gone) Z 1 13 13 0 -1 4194560 1 0 0 0 0 0 0 0 20 0 1 0 5 0 0\n");
    write("14/stat", "14 (going) R 1 14 14 0 -1 4194564 1 0 0 0 0 0 0 0 20 0 1 0 5 0 0\n");
    EXPECT_EQ(PI::inspectProcess(13, view()).error().code, std::errc::no_such_process);
    EXPECT_EQ(PI::inspectProcess(14, view()).error().code, std::errc::no_such_process);
}

// A cached process is read again once it may have exec'd: always without
// the kernel's exec count, and with it only when the count moved.
TEST_F(SyntheticProcfs, ACachedProcessIsReadAgainAfterAnExec) {
    addProcess(40, 1, "app", 0, 7);
    const auto exe = procfs_.path() / "40" / "exe";
    const auto exec = [&](const char* program) {
        std::filesystem::remove(exe);
        std::filesystem::create_symlink(program, exe);
    };
    const auto now = std::chrono::steady_clock::now();
    for (const bool counted : {false, true}) {
        SCOPED_TRACE(counted);
        volatile std::uint64_t execs = 0;
        ProcessCache cache(view());
        if (counted) cache.useExecGeneration(&execs);
        exec("/usr/bin/first");
        ASSERT_EQ(cache.process(40, 7, now)->node.identity.executablePath, "/usr/bin/first");
        exec("/usr/bin/second");
        if (counted) {  // the count stood still: the link is not looked at
            EXPECT_EQ(cache.process(40, 7, now)->node.identity.executablePath, "/usr/bin/first");
        }
        execs = execs + 1;
        EXPECT_EQ(cache.process(40, 7, now)->node.identity.executablePath, "/usr/bin/second");
        EXPECT_EQ(cache.process(40, 8, now), nullptr);  // another start time is another process
    }
}

}  // namespace
}  // namespace quillfort
