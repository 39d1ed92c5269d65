#include "contracts/JsonFileStore.hpp"

#include <cerrno>
#include <fstream>

#include <gtest/gtest.h>

#include "contracts/PromptAgentAutomationCommandStore.hpp"
#include "contracts/PromptAgentStatusStore.hpp"
#include "contracts/RuleSnapshotStore.hpp"
#include "tests/testsupport/FakeFileSystem.hpp"
#include "tests/testsupport/TemporaryDirectory.hpp"

namespace quillfort {
namespace {

namespace fs = std::filesystem;
using testing::FakeFileSystem;
using testing::TemporaryDirectory;

const Date kNoon = parseIso8601("2026-03-01T12:00:00Z").value();

void writeText(const fs::path& path, std::string_view text) {
    fs::create_directories(path.parent_path());
    std::ofstream(path) << text;
}

class JsonFileStores : public ::testing::Test {
protected:
    fs::path file() const { return temp.path() / "a/b/Store.json"; }

    TemporaryDirectory temp;
    FakeFileSystem fileSystem{temp.path() / "home"};
};

TEST_F(JsonFileStores, WithoutLocationEverythingIsANoOp) {
    PromptAgentStatusStore store(fileSystem, std::nullopt);
    auto loaded = store.loadIfPresent();
    ASSERT_TRUE(loaded);
    EXPECT_FALSE(*loaded);
    EXPECT_TRUE(store.save(PromptAgentStatusSnapshot{}));
    EXPECT_TRUE(store.clear());
    EXPECT_TRUE(fileSystem.calls().empty());
}

TEST_F(JsonFileStores, MissingFileIsNothingButOtherReadProblemsFail) {
    RuleSnapshotStore store(fileSystem, file());
    auto missing = store.load(kNoon);
    ASSERT_TRUE(missing);
    EXPECT_EQ(*missing, (RuleSnapshotEnvelope{kNoon, {}}));

    fs::create_directories(file());
    auto directory = store.loadIfPresent();
    ASSERT_FALSE(directory);
    EXPECT_EQ(directory.error().code, std::errc::is_a_directory);
    fs::remove(file());

    writeText(file(), "{}");
    fileSystem.failNext(FakeFileSystem::Operation::readFile, EACCES);
    auto refused = store.load(kNoon);  // an error, not an empty snapshot
    ASSERT_FALSE(refused);
    EXPECT_EQ(refused.error().code, std::errc::permission_denied);

    // Planted by another process: refused by its size, before anything is read.
    writeText(file(), "");
    fs::resize_file(file(), detail::maximumStoreFileSize + 1);
    auto oversize = store.loadIfPresent();
    ASSERT_FALSE(oversize);
    EXPECT_EQ(oversize.error().code, std::errc::file_too_large);
}

TEST_F(JsonFileStores, DecodeErrorsAreReported) {
    RuleSnapshotStore store(fileSystem, file());
    writeText(file(), R"({"rules":[]})");
    auto loaded = store.load(kNoon);
    ASSERT_FALSE(loaded);
    EXPECT_EQ(loaded.error().description, "generatedAt: missing required key");
    writeText(file(), "{not json");
    EXPECT_FALSE(store.loadIfPresent());
}

TEST_F(JsonFileStores, SaveCreatesParentsAndChangesNoPermissions) {
    RuleSnapshotStore store(fileSystem, file());
    Rule rule;
    rule.id = Uuid::random();
    rule.name = "curl";
    ASSERT_TRUE(store.replaceRules({rule}, kNoon));
    for (const auto& call : fileSystem.calls())
        EXPECT_NE(call.operation, FakeFileSystem::Operation::setPosixPermissions);
    auto loaded = store.load(parseIso8601("2030-01-01T00:00:00Z").value());
    ASSERT_TRUE(loaded);
    EXPECT_EQ(*loaded, (RuleSnapshotEnvelope{kNoon, {rule}}));

    fileSystem.failNext(FakeFileSystem::Operation::writeFileAtomically, ENOSPC);
    auto failed = store.replaceRules({}, kNoon);
    ASSERT_FALSE(failed);
    EXPECT_EQ(failed.error().code, std::errc::no_space_on_device);
    EXPECT_EQ(store.load(kNoon)->rules.size(), 1u);  // the old file is intact
}

TEST_F(JsonFileStores, ClearRemovesPresentFileAndReportsFailure) {
    PromptAgentAutomationCommandStore store(fileSystem, file());
    EXPECT_TRUE(store.clear());  // nothing there
    writeText(file(), "{}");
    fileSystem.failNext(FakeFileSystem::Operation::removeItem, EBUSY);
    ASSERT_FALSE(store.clear());
    EXPECT_TRUE(fs::exists(file()));
    EXPECT_TRUE(store.clear());
    EXPECT_FALSE(fs::exists(file()));
}

TEST_F(JsonFileStores, CommandWithUnknownPresetFailsToLoad) {
    PromptAgentAutomationCommandStore store(fileSystem, file());
    const std::string prefix =
        R"({"promptID":"6F1C2B9E-3D4A-4B5C-8D6E-7F8091A2B3C4","createdAt":"2026-03-01T12:00:00Z","preset":")";
    writeText(file(), prefix + "block-session\"}");
    auto known = store.loadIfPresent();
    ASSERT_TRUE(known && *known);
    EXPECT_EQ(**known, (PromptAgentAutomationCommand{Uuid::parse("6F1C2B9E-3D4A-4B5C-8D6E-7F8091A2B3C4").value(),
                                                     FlowPromptAutomationPreset::blockSession, kNoon}));
    for (const std::string preset : {"allow-forever", "blockSession", "ALLOW-ONCE"}) {
        writeText(file(), prefix + preset + "\"}");
        auto loaded = store.loadIfPresent();
        ASSERT_FALSE(loaded) << preset;
        EXPECT_TRUE(loaded.error().description.starts_with("preset:")) << loaded.error().description;
    }
}

}  // namespace
}  // namespace quillfort
