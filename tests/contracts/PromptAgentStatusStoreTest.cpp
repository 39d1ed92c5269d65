#include "contracts/PromptAgentStatusStore.hpp"

#include <fstream>

#include <gtest/gtest.h>

#include "tests/testsupport/FakeFileSystem.hpp"
#include "tests/testsupport/TemporaryDirectory.hpp"

namespace quillfort {
namespace {

namespace fs = std::filesystem;
using testing::FakeFileSystem;
using testing::TemporaryDirectory;

Date at(std::string_view text) { return parseIso8601(text).value(); }

TEST(PromptAgentStatusSnapshot, OlderFilesReadWithPresentationDefaults) {
    auto decoded = decodeJson<PromptAgentStatusSnapshot>(
        R"({"updatedAt":"2026-03-01T12:00:00Z","listenerReady":true,"loopbackListenerReady":false,)"
        R"("manifestPublished":true,"statusText":"Prompt bridge ready."})");
    ASSERT_TRUE(decoded) << decoded.error();
    PromptAgentStatusSnapshot expected;
    expected.updatedAt = at("2026-03-01T12:00:00Z");
    expected.listenerReady = true;
    expected.manifestPublished = true;
    expected.statusText = "Prompt bridge ready.";
    EXPECT_EQ(*decoded, expected);
}

TEST(PromptAgentStatusSnapshot, RequiredKeysAndTypesAreEnforced) {
    const std::string base = R"("updatedAt":"2026-03-01T12:00:00Z","listenerReady":true,)"
                             R"("loopbackListenerReady":false,"manifestPublished":true)";
    const std::vector<std::pair<std::string, std::string>> cases{
        {"{" + base + "}", "statusText"},
        {R"({"listenerReady":true,"loopbackListenerReady":false,"manifestPublished":true,"statusText":"x"})",
         "updatedAt"},
        {"{" + base + R"(,"statusText":"x","activePromptCount":"3"})", "activePromptCount"},
        {"{" + base + R"(,"statusText":"x","queuedPrompts":[{"promptID":"6F1C2B9E-3D4A-4B5C-8D6E-7F8091A2B3C4"}]})",
         "queuedPrompts[0].host"},
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

TEST(PromptAgentStatusStore, WritesSortedIndentedFileAndReadsItBack) {
    TemporaryDirectory temp;
    FakeFileSystem fileSystem;
    PromptAgentStatusStore store(fileSystem, temp.path() / "PromptAgentStatus.json");

    PromptAgentStatusSnapshot status;
    status.updatedAt = at("2026-03-01T12:00:00Z");
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
    status.lastPromptReceivedAt = at("2026-03-01T12:00:05Z");
    status.activePromptCount = 2;
    status.activePrompt = PromptAgentActivePromptSnapshot{id, "example.com", 443, 2, "curl", "allow session curl"};
    status.queuedPrompts = {{id, "example.com", 443, "curl", "allow session curl"},
                            {Uuid{}, "", std::nullopt, "Unknown Process", "Temporary drop decision"}};
    ASSERT_TRUE(store.save(status));
    auto loaded = store.loadIfPresent();
    ASSERT_TRUE(loaded && *loaded);
    EXPECT_EQ(**loaded, status);
}

}  // namespace
}  // namespace quillfort
