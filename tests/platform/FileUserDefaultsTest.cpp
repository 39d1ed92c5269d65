#include "platform/FileUserDefaults.hpp"

#include <boost/json.hpp>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/InMemoryUserDefaults.hpp"
#include "platform/PosixFileSystem.hpp"
#include "tests/testsupport/FakeFileSystem.hpp"
#include "tests/testsupport/TemporaryDirectory.hpp"

namespace quillfort {
namespace {

using testing::FakeFileSystem;
using testing::TemporaryDirectory;
namespace fs = std::filesystem;

constexpr std::string_view preferenceKey = "Quillfort.Agent.StoredPromptPreference";

// Both implementations keep the same contract; the file one is tested on a
// location whose directory does not exist yet.
template <class Defaults>
struct UserDefaultsContract : ::testing::Test {
    TemporaryDirectory dir;
    std::shared_ptr<FakeFileSystem> files = std::make_shared<FakeFileSystem>();
    std::unique_ptr<UserDefaults> defaults = make();

    std::unique_ptr<UserDefaults> make() {
        if constexpr (std::is_same_v<Defaults, FileUserDefaults>) {
            return std::make_unique<FileUserDefaults>(files, dir.path() / "config" / "quillfort" / "defaults.json");
        } else {
            return std::make_unique<InMemoryUserDefaults>();
        }
    }
};
using Implementations = ::testing::Types<FileUserDefaults, InMemoryUserDefaults>;
TYPED_TEST_SUITE(UserDefaultsContract, Implementations);

TYPED_TEST(UserDefaultsContract, StoresReplacesAndRemovesValues) {
    auto& defaults = *this->defaults;
    const std::string json = R"({"preset":"blockSession","hostPatternOverride":"*.b\u00e9.com\n\"q\""})";
    EXPECT_EQ(defaults.data(preferenceKey), std::nullopt);
    ASSERT_TRUE(defaults.setData(preferenceKey, json));
    ASSERT_TRUE(defaults.setString("QUILLFORT_AGENT_AUTOMATION_PREVIEW_PROMPT", "1"));
    ASSERT_TRUE(defaults.setString("QUILLFORT_AGENT_AUTOMATION_PREVIEW_PROMPT", ""));  // empty is a value too
    EXPECT_EQ(defaults.data(preferenceKey), json);
    EXPECT_EQ(defaults.string("QUILLFORT_AGENT_AUTOMATION_PREVIEW_PROMPT"), "");
    ASSERT_TRUE(defaults.remove(preferenceKey));
    ASSERT_TRUE(defaults.remove("never.set"));
    EXPECT_EQ(defaults.data(preferenceKey), std::nullopt);
    EXPECT_EQ(defaults.string("QUILLFORT_AGENT_AUTOMATION_PREVIEW_PROMPT"), "");
}

TYPED_TEST(UserDefaultsContract, RefusesBytesThatAreNotUtf8AndKeepsThePreviousValue) {
    auto& defaults = *this->defaults;
    EXPECT_TRUE(defaults.setString("k\xc3\xa9", "\xc3\xa9 \xe2\x82\xac \xf0\x9f\x98\x80"));  // 2, 3 and 4 bytes
    ASSERT_TRUE(defaults.setData(preferenceKey, "{}"));
    for (std::string_view bad : {"\xff", "\xc0\xaf", "\xed\xa0\x80", "ok\xe2\x82"}) {
        auto stored = defaults.setData(preferenceKey, bad);
        ASSERT_FALSE(stored);
        EXPECT_EQ(stored.error().code, std::errc::illegal_byte_sequence);
        EXPECT_FALSE(defaults.setString(bad, "x"));
    }
    EXPECT_EQ(defaults.data(preferenceKey), "{}");
}

struct FileUserDefaultsTest : ::testing::Test {
    TemporaryDirectory dir;
    fs::path location = dir.path() / "defaults.json";
    std::shared_ptr<FakeFileSystem> files = std::make_shared<FakeFileSystem>();

    void writeRaw(const std::string& bytes) { ASSERT_TRUE(files->writeFileAtomically(location, bytes)); }
};

TEST_F(FileUserDefaultsTest, ValuesOutliveTheObjectAndOnlyStringsCount) {
    writeRaw(R"({"n":1,"o":{"a":"b"},"z":null})");
    ASSERT_TRUE(FileUserDefaults(files, location).setString("k", "v"));
    FileUserDefaults defaults(files, location);
    EXPECT_EQ(defaults.string("k"), "v");
    for (auto key : {"n", "o", "z"}) EXPECT_EQ(defaults.data(key), std::nullopt) << key;
    EXPECT_EQ(boost::json::parse(files->readFile(location).value()),
              boost::json::parse(R"({"n":1,"o":{"a":"b"},"z":null,"k":"v"})"));
}

TEST_F(FileUserDefaultsTest, UndecodableFileReadsAsEmptyAndIsReplacedOnWrite) {
    for (std::string corrupt : {"", "{\"k\":", "[\"k\",\"v\"]", "\"k\"", "\xff\xfe"}) {
        writeRaw(corrupt);
        FileUserDefaults defaults(files, location);
        EXPECT_EQ(defaults.string("k"), std::nullopt);
        ASSERT_TRUE(defaults.setString("new", "1"));
        EXPECT_EQ(boost::json::parse(files->readFile(location).value()), boost::json::parse(R"({"new":"1"})"));
    }
}

TEST_F(FileUserDefaultsTest, FailedWriteIsReportedAndLeavesTheFileAsItWas) {
    FileUserDefaults defaults(files, location);
    ASSERT_TRUE(defaults.setString("k", "old"));
    const auto before = files->readFile(location).value();

    files->failNext(FakeFileSystem::Operation::writeFileAtomically, ENOSPC);
    EXPECT_EQ(defaults.setString("k", "new").error().code, std::errc::no_space_on_device);
    files->failNext(FakeFileSystem::Operation::createDirectories, EACCES);
    EXPECT_EQ(defaults.remove("k").error().code, std::errc::permission_denied);

    EXPECT_EQ(files->readFile(location).value(), before);
    EXPECT_EQ(defaults.string("k"), "old");
}

TEST(FileUserDefaults, StandardLocationPrefersAnAbsoluteXdgConfigHome) {
    FakeFileSystem files("/home/alice");
    struct Case { std::map<std::string, std::string> environment; std::optional<fs::path> expected; };
    for (const auto& c : {Case{{{"XDG_CONFIG_HOME", "/cfg"}}, fs::path("/cfg/quillfort/defaults.json")},
                          Case{{{"XDG_CONFIG_HOME", ""}}, fs::path("/home/alice/.config/quillfort/defaults.json")},
                          Case{{{"XDG_CONFIG_HOME", "rel"}}, fs::path("/home/alice/.config/quillfort/defaults.json")},
                          Case{{}, fs::path("/home/alice/.config/quillfort/defaults.json")}}) {
        ProcessInfo processInfo;
        processInfo.environment = c.environment;
        EXPECT_EQ(FileUserDefaults::standardLocation(processInfo, files), c.expected);
    }
    files.setHomeDirectory(std::nullopt);
    EXPECT_EQ(FileUserDefaults::standardLocation(ProcessInfo{}, files), std::nullopt);
}

}  // namespace
}  // namespace quillfort
