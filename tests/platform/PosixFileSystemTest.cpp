#include "platform/PosixFileSystem.hpp"

#include <algorithm>
#include <csignal>
#include <fstream>

#include <gmock/gmock.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "platform/UserDatabase.hpp"
#include "tests/testsupport/TemporaryDirectory.hpp"

namespace quillfort {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using testing::TemporaryDirectory;
namespace fs = std::filesystem;

PosixFileSystem makeFileSystem(std::map<std::string, std::string> environment = {},
                               PosixFileSystem::ConsoleUserQuery console = [] { return std::optional<uid_t>{}; }) {
    ProcessInfo processInfo;
    processInfo.environment = std::move(environment);
    return PosixFileSystem(processInfo, std::move(console));
}

std::vector<std::string> sortedNames(const std::vector<DirectoryEntry>& entries) {
    std::vector<std::string> names;
    for (const auto& entry : entries) names.push_back(entry.path.filename().string());
    std::sort(names.begin(), names.end());
    return names;
}

std::vector<std::string> everythingIn(const fs::path& directory) {
    return sortedNames(makeFileSystem().listDirectory(directory, false).value());
}

// Runs `body` in a child process and gives its exit status.
template <class Body>
int inChild(Body body) {
    pid_t pid = ::fork();
    if (pid == 0) ::_exit(body());
    int status = 0;
    ::waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST(PosixFileSystem, AtomicWriteReplacesWholeContentAndLeavesNothingBeside) {
    TemporaryDirectory dir;
    auto files = makeFileSystem();
    auto target = dir.path() / "state.json";
    // Larger than one read chunk, so a reader that stops early is seen.
    const std::string large(300'000, 'a');
    ASSERT_TRUE(files.writeFileAtomically(target, large));
    EXPECT_EQ(files.readFile(target).value(), large);
    ASSERT_TRUE(files.writeFileAtomically(target, "short"));
    EXPECT_EQ(files.readFile(target).value(), "short");
    EXPECT_THAT(everythingIn(dir.path()), ElementsAre("state.json"));
}

TEST(PosixFileSystem, WriteFailingMidwayKeepsOldContentAndRemovesTemporary) {
    TemporaryDirectory dir;
    auto target = dir.path() / "state.json";
    testing::writeText(target, "old content");
    // A file-size limit makes the write stop after 64 KiB of a 1 MiB content:
    // a writer that touched the target in place would leave it truncated.
    int status = inChild([&] {
        ::signal(SIGXFSZ, SIG_IGN);
        rlimit limit{64 * 1024, 64 * 1024};
        ::setrlimit(RLIMIT_FSIZE, &limit);
        auto files = makeFileSystem();
        auto written = files.writeFileAtomically(target, std::string(1 << 20, 'n'));
        return written ? 1 : (written.error().code == std::errc::file_too_large ? 42 : 2);
    });
    EXPECT_EQ(status, 42);
    EXPECT_EQ(makeFileSystem().readFile(target).value(), "old content");
    EXPECT_THAT(everythingIn(dir.path()), ElementsAre("state.json"));
}

TEST(PosixFileSystem, WriteWithoutAPlaceForTheFileFailsAndLeavesNothing) {
    TemporaryDirectory dir;
    auto files = makeFileSystem();
    ASSERT_TRUE(files.createDirectories(dir.path() / "taken"));
    EXPECT_TRUE(files.writeFileAtomically(dir.path() / "missing" / "f.json", "x").error().isNoSuchFile());
    EXPECT_FALSE(files.writeFileAtomically(dir.path() / "taken", "x"));
    EXPECT_TRUE(files.isDirectory(dir.path() / "taken"));
    EXPECT_THAT(everythingIn(dir.path()), ElementsAre("taken"));
}

// New files are readable by all under the usual umask, as any new file;
// permissions set on purpose ignore the umask.
TEST(PosixFileSystem, NewFilesFollowTheUmaskAndSetPermissionsDoNot) {
    TemporaryDirectory dir;
    auto files = makeFileSystem();
    for (auto [mask, expected] : {std::pair<mode_t, mode_t>{022, 0644}, {077, 0600}}) {
        mode_t previous = ::umask(mask);
        auto written = files.writeFileAtomically(dir.path() / "f", "x");
        ::umask(previous);
        ASSERT_TRUE(written);
        EXPECT_EQ(testing::permissionsOf(dir.path() / "f"), expected) << "umask " << std::oct << mask;
    }
    ASSERT_TRUE(files.setPosixPermissions(dir.path() / "f", 0777));
    EXPECT_EQ(testing::permissionsOf(dir.path() / "f"), 0777U);
    EXPECT_TRUE(files.setPosixPermissions(dir.path() / "missing", 0666).error().isNoSuchFile());
}

TEST(PosixFileSystem, ReadAndListFailuresKeepTheirErrno) {
    TemporaryDirectory dir;
    auto files = makeFileSystem();
    testing::writeText(dir.path() / "file", "x");
    struct Case { fs::path path; bool list; std::errc expected; };
    for (const auto& c : {Case{dir.path() / "missing", false, std::errc::no_such_file_or_directory},
                          Case{dir.path(), false, std::errc::is_a_directory},
                          // A device would never end: only regular files are read.
                          Case{"/dev/zero", false, std::errc::invalid_argument},
                          Case{dir.path() / "missing", true, std::errc::no_such_file_or_directory},
                          Case{dir.path() / "file", true, std::errc::not_a_directory}}) {
        auto error = c.list ? files.listDirectory(c.path, false).error() : files.readFile(c.path).error();
        EXPECT_EQ(error.code, c.expected) << c.path;
        EXPECT_THAT(error.description, HasSubstr(c.path.string()));
    }
}

TEST(PosixFileSystem, FileIdentityChangesWithReplacementOrRewriteButNotWithReading) {
    TemporaryDirectory dir;
    auto files = makeFileSystem();
    const auto path = dir.path() / "snapshot.json";
    ASSERT_TRUE(files.writeFileAtomically(path, "first"));
    const auto first = files.fileIdentity(path).value();
    EXPECT_EQ(first.size, 5u);
    ASSERT_TRUE(files.readFile(path));
    EXPECT_EQ(files.fileIdentity(path), first);

    // Same size, replaced by rename: a new inode.
    ASSERT_TRUE(files.writeFileAtomically(path, "other"));
    const auto replaced = files.fileIdentity(path).value();
    EXPECT_NE(replaced, first);

    // Same size, rewritten in place with only the nanoseconds of the time moved.
    const auto nanos = replaced.modificationTime.time_since_epoch().count();
    const timespec times[2] = {{0, UTIME_OMIT}, {nanos / 1'000'000'000, (nanos % 1'000'000'000 + 1) % 1'000'000'000}};
    ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
    const auto touched = files.fileIdentity(path).value();
    EXPECT_EQ(touched.inode, replaced.inode);
    EXPECT_NE(touched, replaced);

    EXPECT_EQ(files.fileIdentity(dir.path() / "missing").error().code, std::errc::no_such_file_or_directory);
}

// Temporary files are hidden, and the file bridge takes requests in the order
// of their creation dates.
TEST(PosixFileSystem, ListingSkipsHiddenEntriesWhenAskedAndGivesCreationDates) {
    TemporaryDirectory dir;
    auto files = makeFileSystem();
    auto started = std::chrono::system_clock::now() - std::chrono::minutes(1);
    for (auto name : {"b.json", ".hidden", "request.json"}) testing::writeText(dir.path() / name, "x");
    ASSERT_TRUE(files.createDirectories(dir.path() / "sub"));
    EXPECT_THAT(everythingIn(dir.path()), ElementsAre(".hidden", "b.json", "request.json", "sub"));
    // Move the modification time far back: a birth time stays recent.
    const auto file = dir.path() / "request.json";
    timespec old[2] = {{1'000'000'000, 0}, {1'000'000'000, 0}};
    ASSERT_EQ(::utimensat(AT_FDCWD, file.c_str(), old, 0), 0);
    struct statx info{};
    ASSERT_EQ(::statx(AT_FDCWD, file.c_str(), 0, STATX_BTIME, &info), 0);

    auto entries = files.listDirectory(dir.path(), true).value();
    EXPECT_THAT(sortedNames(entries), ElementsAre("b.json", "request.json", "sub"));
    auto entry = std::find_if(entries.begin(), entries.end(), [&](const auto& e) { return e.path == file; });
    ASSERT_NE(entry, entries.end());
    const auto created = entry->creationDate.value_or(std::chrono::system_clock::time_point{});
    const auto oldTime = std::chrono::system_clock::from_time_t(1'000'000'000);
    EXPECT_TRUE((info.stx_mask & STATX_BTIME) != 0 ? created > started : created == oldTime);
}

TEST(PosixFileSystem, CreateDirectoriesMakesParentsAndIsIdempotent) {
    TemporaryDirectory dir;
    auto files = makeFileSystem();
    auto nested = dir.path() / "a" / "b" / "c";
    ASSERT_TRUE(files.createDirectories(nested));
    ASSERT_TRUE(files.createDirectories(nested));
    ASSERT_TRUE(files.createDirectories(dir.path() / "a" / "b" / "d" / ""));
    EXPECT_TRUE(files.isDirectory(nested));

    testing::writeText(dir.path() / "file", "x");
    EXPECT_EQ(files.createDirectories(dir.path() / "file").error().code, std::errc::file_exists);
    EXPECT_EQ(files.createDirectories(dir.path() / "file" / "sub").error().code, std::errc::not_a_directory);
}

TEST(PosixFileSystem, RemoveItemRemovesTreesButNotWhatLinksPointTo) {
    TemporaryDirectory dir;
    auto files = makeFileSystem();
    ASSERT_TRUE(files.createDirectories(dir.path() / "tree" / "deep"));
    testing::writeText(dir.path() / "tree" / "deep" / "f", "x");
    ASSERT_TRUE(files.createDirectories(dir.path() / "kept"));
    testing::writeText(dir.path() / "kept" / "f", "x");
    fs::create_directory_symlink(dir.path() / "kept", dir.path() / "link");

    EXPECT_TRUE(files.removeItem(dir.path() / "tree"));
    EXPECT_TRUE(files.removeItem(dir.path() / "link"));
    EXPECT_TRUE(files.removeItem(dir.path() / "kept" / "f"));
    EXPECT_THAT(everythingIn(dir.path()), ElementsAre("kept"));
    EXPECT_TRUE(files.removeItem(dir.path() / "tree").error().isNoSuchFile());
}

TEST(PosixFileSystem, HomesAndTemporaryDirectoryComeFromTheInjectedEnvironmentAndConsoleUser) {
    auto passwdHome = UserDatabase::homeDirectory(::geteuid());
    struct Case { std::map<std::string, std::string> environment; std::optional<fs::path> home; fs::path temporary; };
    for (const auto& c : {Case{{{"HOME", "/home/alice"}, {"TMPDIR", "/var/tmp/x"}}, fs::path("/home/alice"), "/var/tmp/x"},
                          Case{{{"HOME", ""}, {"TMPDIR", ""}}, passwdHome, "/tmp"},
                          Case{{}, passwdHome, "/tmp"}}) {
        auto files = makeFileSystem(c.environment);
        EXPECT_EQ(files.currentHomeDirectory(), c.home);
        EXPECT_EQ(files.temporaryDirectory(), c.temporary);
    }
    // The console user's home is that of the active session's account, whatever HOME says.
    struct Console { std::optional<uid_t> user; std::optional<fs::path> home; };
    for (const auto& c : {Console{::geteuid(), passwdHome}, Console{std::nullopt, std::nullopt},
                          Console{uid_t{2'000'000'123}, std::nullopt}}) {  // no such account
        auto files = makeFileSystem({{"HOME", "/elsewhere"}}, [&] { return c.user; });
        EXPECT_EQ(files.consoleUserHomeDirectory(), c.home);
    }
    // Otherwise the rows above would compare nothing with nothing.
    EXPECT_TRUE(UserDatabase::homeDirectory(::geteuid()).has_value());
}

}  // namespace
}  // namespace quillfort
