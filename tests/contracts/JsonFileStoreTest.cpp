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
using testing::writeText;

const Date kNoon = parseIso8601("2026-03-01T12:00:00Z").value();

class JsonFileStores : public ::testing::Test {
protected:
    fs::path file() const { return temp.path() / "a/b/Store.json"; }

    TemporaryDirectory temp;
    FakeFileSystem fileSystem{temp.path() / "home"};
};

TEST_F(JsonFileStores, WithoutLocationEverythingIsANoOp) {
    PromptAgentStatusStore store(fileSystem, std::nullopt);
    EXPECT_EQ(store.loadIfPresent().value(), std::nullopt);
    EXPECT_TRUE(store.save(PromptAgentStatusSnapshot{}));
    EXPECT_TRUE(store.clear());
    EXPECT_TRUE(fileSystem.calls().empty());
}

TEST_F(JsonFileStores, MissingFileIsNothingButOtherReadProblemsFail) {
    RuleSnapshotStore store(fileSystem, file());
    EXPECT_EQ(store.load(kNoon), (RuleSnapshotEnvelope{kNoon, {}}));

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

    writeText(file(), R"({"rules":[]})");
    auto undecodable = store.load(kNoon);
    ASSERT_FALSE(undecodable);
    EXPECT_EQ(undecodable.error().description, "generatedAt: missing required key");
}

TEST_F(JsonFileStores, SaveCreatesParentsAndChangesNoPermissions) {
    RuleSnapshotStore store(fileSystem, file());
    Rule rule;
    rule.id = Uuid::random();
    rule.name = "curl";
    ASSERT_TRUE(store.replaceRules({rule}, kNoon));
    for (const auto& call : fileSystem.calls())
        EXPECT_NE(call.operation, FakeFileSystem::Operation::setPosixPermissions);
    EXPECT_EQ(store.load(parseIso8601("2030-01-01T00:00:00Z").value()), (RuleSnapshotEnvelope{kNoon, {rule}}));

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
    EXPECT_EQ(store.loadIfPresent(),
              (PromptAgentAutomationCommand{Uuid::parse("6F1C2B9E-3D4A-4B5C-8D6E-7F8091A2B3C4").value(),
                                            FlowPromptAutomationPreset::blockSession, kNoon}));
    writeText(file(), prefix + "blockSession\"}");
    auto unknown = store.loadIfPresent();
    ASSERT_FALSE(unknown);
    EXPECT_TRUE(unknown.error().description.starts_with("preset:")) << unknown.error().description;
}

// Files of older agents lack the presentation keys and read with defaults;
// what every agent wrote must be there, with its type.
TEST(PromptAgentStatusSnapshot, OlderFilesReadWithDefaultsButRequiredKeysAndTypesAreEnforced) {
    const std::string base = R"("updatedAt":"2026-03-01T12:00:00Z","listenerReady":true,)"
                             R"("loopbackListenerReady":false,"manifestPublished":true)";
    PromptAgentStatusSnapshot older;
    older.updatedAt = kNoon;
    older.listenerReady = older.manifestPublished = true;
    older.statusText = "Prompt bridge ready.";
    EXPECT_EQ(decodeJson<PromptAgentStatusSnapshot>("{" + base + R"(,"statusText":"Prompt bridge ready."})"), older);
    const std::vector<std::pair<std::string, std::string>> cases{
        {"{" + base + "}", "statusText"},
        {"{" + base + R"(,"statusText":"x","activePromptCount":"3"})", "activePromptCount"},
        {"{" + base + R"(,"statusText":"x","activePrompt":{"promptID":"6F1C2B9E-3D4A-4B5C-8D6E-7F8091A2B3C4",)"
                      R"("host":"h","port":70000,"queueCount":1,"processDisplayTitle":"p","previewText":"t"}})",
         "activePrompt.port"},
    };
    for (const auto& [json, key] : cases) {
        auto decoded = decodeJson<PromptAgentStatusSnapshot>(json);
        ASSERT_FALSE(decoded) << json;
        EXPECT_NE(decoded.error().description().find(key), std::string::npos) << decoded.error().description();
    }
}

TEST_F(JsonFileStores, StatusIsWrittenSortedAndIndentedAndReadBack) {
    PromptAgentStatusStore store(fileSystem, file());

    PromptAgentStatusSnapshot status;
    status.updatedAt = kNoon;
    status.listenerReady = true;
    status.statusText = "Starting prompt bridge...";
    ASSERT_TRUE(store.save(status));

    std::ifstream in(*store.snapshotURL());
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(in), {}),
              "{\n"
              "  \"activePromptCount\" : 0,\n"
              "  \"listenerReady\" : true,\n"
              "  \"loopbackListenerReady\" : false,\n"
              "  \"manifestPublished\" : false,\n"
              "  \"promptWindowVisible\" : false,\n"
              "  \"queuedPrompts\" : [],\n"
              "  \"statusText\" : \"Starting prompt bridge...\",\n"
              "  \"updatedAt\" : \"2026-03-01T12:00:00Z\"\n"
              "}");

    const auto id = Uuid::parse("6f1c2b9e-3d4a-4b5c-8d6e-7f8091a2b3c4").value();
    status.lastPromptReceivedAt = kNoon + std::chrono::seconds{5};
    status.activePromptCount = 2;
    status.activePrompt = PromptAgentActivePromptSnapshot{id, "example.com", 443, 2, "curl", "allow session curl"};
    status.queuedPrompts = {{id, "example.com", 443, "curl", "allow session curl"},
                            {Uuid{}, "", std::nullopt, "Unknown Process", "Temporary drop decision"}};
    ASSERT_TRUE(store.save(status));
    EXPECT_EQ(store.loadIfPresent(), status);
}

}  // namespace
}  // namespace quillfort
