#include "contracts/QuillfortPromptEndpointStore.hpp"

#include <cerrno>
#include <fstream>
#include <string>
#include <variant>
#include <vector>

#include <sys/stat.h>

#include <gtest/gtest.h>

#include "contracts/QuillfortSharedContainer.hpp"
#include "tests/testsupport/FakeFileSystem.hpp"
#include "tests/testsupport/TemporaryDirectory.hpp"

#include "contracts/QuillfortPromptListenerRecord.hpp"

namespace quillfort {
namespace {

namespace fs = std::filesystem;
namespace store = QuillfortPromptEndpointStore;
using testing::FakeFileSystem;
using testing::TemporaryDirectory;
using testing::permissionsOf;
using testing::readText;
using testing::writeText;

const std::string kGroupContainers = "Library/Group Containers/";
const std::string kPrefixed = kGroupContainers + "group.com.vessimo.Quillfort.shared";
const std::string kUnprefixed = kGroupContainers + "com.vessimo.Quillfort.shared";

using Kind = QuillfortPromptBridgeTransportKind;
const std::string kDefaultService(QuillfortPromptEndpointStore::defaultMachServiceName);

QuillfortPromptListenerRecord record(Kind transport, std::optional<std::string> service,
                                     std::optional<std::string> requests = {},
                                     std::optional<std::string> responses = {},
                                     std::optional<std::string> session = {}) {
    return {transport, std::move(service), std::move(requests), std::move(responses), std::move(session)};
}

// Paths in the table are relative to a fresh temporary directory.
TEST(QuillfortPromptEndpointStore, CandidateDirectoriesFollowHomeLayout) {
    using Path = std::optional<std::string>;
    struct Case {
        const char* name;
        Path container, consoleHome, currentHome, explicitHome;
        std::vector<std::string> existingDirectories, expected;
    };
    const Case cases[] = {
        {"only unprefixed exists", {}, {}, "a", "a", {"a/" + kUnprefixed}, {"a/" + kUnprefixed}},
        {"both exist, prefixed wins", {}, {}, "a", "a", {"a/" + kUnprefixed, "a/" + kPrefixed}, {"a/" + kPrefixed}},
        {"console home equals current, listed once", {}, "c", "c", {}, {}, {"c/" + kPrefixed}},
        {"console home before current home", {}, "c", "u", {}, {}, {"c/" + kPrefixed, "u/" + kPrefixed}},
        {"explicit home beats console home", {}, "c", "u", "a", {}, {"a/" + kPrefixed, "u/" + kPrefixed}},
        {"explicit home standardized", {}, {}, "a", "x/../a/./", {}, {"a/" + kPrefixed}},
        {"container first, no console", "group/", {}, "u", {}, {}, {"group", "u/" + kPrefixed}},
        {"nothing known", {}, {}, {}, {}, {}, {}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        TemporaryDirectory temp;
        auto at = [&](const Path& rel) { return rel ? std::optional(temp.path() / *rel) : std::nullopt; };
        FakeFileSystem fileSystem;
        fileSystem.setAppGroupContainer(at(c.container));
        fileSystem.setConsoleUserHomeDirectory(at(c.consoleHome));
        fileSystem.setHomeDirectory(at(c.currentHome));
        for (const auto& dir : c.existingDirectories) fs::create_directories(temp.path() / dir);

        std::vector<fs::path> expected;
        for (const auto& rel : c.expected) expected.push_back(temp.path() / rel);
        EXPECT_EQ(store::candidatePromptBridgeDirectoryURLs(fileSystem, at(c.explicitHome)), expected);
        EXPECT_EQ(store::listenerEndpointURL(fileSystem, at(c.explicitHome)),
                  expected.empty() ? std::nullopt : std::optional(expected.front() / "QuillfortPromptAgent.endpoint"));
    }
}

TEST(QuillfortPromptEndpointStore, UsesSharedBridgeOnlyAtComponentBoundaries) {
    FakeFileSystem fileSystem;
    fileSystem.setAppGroupContainer("/X/Bridge");
    const std::vector<std::pair<fs::path, bool>> cases{
        {"/X/Bridge", true},      {"/X/Bridge/", true},          {"/X/Other/../Bridge/a", true},
        {"/X/BridgeOther", false}, {"/X/Bridge/../Other", false}, {"/X", false},
    };
    for (const auto& [url, expected] : cases) {
        EXPECT_EQ(store::usesSharedPromptBridge(url, fileSystem), expected) << url;
    }
}

// Inside the bridge directories are created and everything is opened to every
// user; outside it nothing is created and nothing is touched. Refusals of a
// permission change are no error there: another user's agent made the folder.
TEST(QuillfortPromptEndpointStore, EnsureAccessibleSetsPermissionsOnlyInsideTheBridge) {
    TemporaryDirectory temp;
    FakeFileSystem fileSystem;
    fileSystem.setAppGroupContainer(temp.path() / "Bridge");
    for (const auto& [directory, inside] : {std::pair{temp.path() / "Bridge/S/Requests", true},
                                            std::pair{temp.path() / "Elsewhere/dir", false}}) {
        SCOPED_TRACE(directory);
        const auto callsBefore = fileSystem.calls().size();
        ASSERT_TRUE(store::ensureAccessibleDirectory(directory, fileSystem));
        EXPECT_EQ(fs::is_directory(directory), inside);
        const fs::path file = directory.parent_path() / "A.json";
        writeText(file, "{}");
        fs::permissions(file, fs::perms(0600));
        ASSERT_TRUE(store::ensureAccessibleFile(file, fileSystem));
        EXPECT_EQ(permissionsOf(file), inside ? 0666u : 0600u);
        EXPECT_EQ(inside ? permissionsOf(directory) : fileSystem.calls().size() - callsBefore, inside ? 0777u : 0u);
    }
    const fs::path dir = temp.path() / "Bridge/Requests";
    for (const auto& [err, ignored] : std::initializer_list<std::pair<int, bool>>{
             {EPERM, true}, {EACCES, true}, {EROFS, true}, {EIO, false}}) {
        fileSystem.clearFailures();
        fileSystem.failOn(FakeFileSystem::Operation::setPosixPermissions, dir, err);
        auto result = store::ensureAccessibleDirectory(dir, fileSystem);
        EXPECT_EQ(result ? std::error_code() : result.error().code,
                  ignored ? std::error_code() : std::error_code(err, std::generic_category()))
            << err;
    }
}

// Two candidates: the console user's home first, then the current home.
class PromptEndpointManifest : public ::testing::Test {
protected:
    PromptEndpointManifest() {
        fileSystem.setConsoleUserHomeDirectory(temp.path() / "c");
        fileSystem.setHomeDirectory(temp.path() / "u");
    }
    fs::path first() const { return temp.path() / "c" / kPrefixed / "QuillfortPromptAgent.endpoint"; }
    fs::path second() const { return temp.path() / "u" / kPrefixed / "QuillfortPromptAgent.endpoint"; }
    Result<std::optional<QuillfortPromptListenerRecord>> load() const { return store::load(fileSystem, std::nullopt); }

    TemporaryDirectory temp;
    FakeFileSystem fileSystem;
};

const std::string kUsable =
    R"({"transport":"fileRequestResponse","requestsDirectoryPath":"/q/Requests","responsesDirectoryPath":"/q/Responses","sessionIdentifier":"S"})";

// A usable manifest anywhere wins; otherwise the first problem met is reported.
TEST_F(PromptEndpointManifest, LoadTakesFirstUsableCandidate) {
    using Record = QuillfortPromptListenerRecord;
    const Record fileRecord = record(Kind::fileRequestResponse, {}, "/q/Requests", "/q/Responses", "S");
    const Record serviceRecord = record(Kind::machServiceXPC, "agent.service");
    const std::string unreadable = "Failed to read the Quillfort prompt listener manifest at " + first().native() + ": ";
    struct Case {
        std::optional<std::string> first, second;
        std::variant<std::optional<Record>, std::string> expected;  // a record, or the error's start
    };
    const std::vector<Case> cases{
        {R"({"requestsDirectoryPath":"/tmp/r"})", kUsable, fileRecord},
        {"not json", kUsable, fileRecord},
        {{}, R"("agent.service")", serviceRecord},
        {{}, {}, std::optional<Record>{}},
        {R"({"requestsDirectoryPath":"/tmp/r"})", {},
         "Invalid Quillfort prompt listener manifest at " + first().native() +
             ": transport=fileRequestResponse requests=/tmp/r responses= session=<nil>"},
        {"not json", R"({"transport":"machServiceXPC","machServiceName":"   "})", unreadable + "invalid JSON"},
    };
    for (const auto& c : cases) {
        fs::remove(first());
        fs::remove(second());
        if (c.first) writeText(first(), *c.first);
        if (c.second) writeText(second(), *c.second);
        const auto loaded = load();
        SCOPED_TRACE(c.first.value_or("-") + " / " + c.second.value_or("-"));
        if (const auto* record = std::get_if<std::optional<Record>>(&c.expected))
            EXPECT_EQ(loaded.value(), *record);
        else
            EXPECT_TRUE(!loaded && loaded.error().description.starts_with(std::get<std::string>(c.expected)));
    }
    fs::remove(first());
    fs::create_directories(first());  // present but unreadable
    const auto failed = load();
    EXPECT_TRUE(!failed && failed.error().description.starts_with(unreadable));
}

TEST_F(PromptEndpointManifest, SavePublishesCompactAccessibleManifestAtFirstCandidate) {
    ASSERT_TRUE(store::save(record(Kind::fileRequestResponse, {}, "/q/Requests", "/q/Responses", "S"), fileSystem,
                            std::nullopt));

    EXPECT_EQ(readText(first()).value_or(""), kUsable);
    EXPECT_EQ(permissionsOf(first().parent_path()), 0777u);  // created with its parents
    EXPECT_EQ(permissionsOf(first()), 0666u);
    EXPECT_FALSE(fs::exists(second()));

    ASSERT_TRUE(store::save("svc.name", fileSystem, std::nullopt));
    EXPECT_EQ(readText(first()).value_or(""), R"({"transport":"machServiceXPC","machServiceName":"svc.name"})");
}

TEST_F(PromptEndpointManifest, ClearRemovesEveryManifestAndStopsAtFirstFailure) {
    writeText(first(), kUsable);
    writeText(second(), kUsable);
    fileSystem.failOn(FakeFileSystem::Operation::removeItem, first(), EACCES);
    auto failed = store::clear(fileSystem, std::nullopt);
    ASSERT_FALSE(failed);
    EXPECT_EQ(failed.error().code, std::errc::permission_denied);
    EXPECT_TRUE(fs::exists(second()));

    fileSystem.clearFailures();
    ASSERT_TRUE(store::clear(fileSystem, std::nullopt));
    EXPECT_FALSE(fs::exists(first()));
    EXPECT_FALSE(fs::exists(second()));
    EXPECT_TRUE(store::clear(fileSystem, std::nullopt));
}

TEST(QuillfortSharedContainer, ContainerFollowsTheFirstKnownHome) {
    namespace container = QuillfortSharedContainer;
    TemporaryDirectory temp;
    FakeFileSystem fileSystem(temp.path() / "u");
    EXPECT_EQ(container::containerURL(fileSystem, temp.path() / "a" / "."), temp.path() / "a" / kPrefixed);
    EXPECT_EQ(container::containerURL(fileSystem, std::nullopt), temp.path() / "u" / kPrefixed);
    fileSystem.setConsoleUserHomeDirectory(temp.path() / "c");
    fs::create_directories(temp.path() / "c" / kUnprefixed);
    EXPECT_EQ(container::promptAgentStatusURL(fileSystem, std::nullopt),
              temp.path() / "c" / kUnprefixed / "PromptAgentStatus.json");

    fileSystem.setAppGroupContainer("/containers/group");
    EXPECT_EQ(container::ruleSnapshotURL(fileSystem, temp.path()), fs::path("/containers/group/RuleSnapshot.json"));
    EXPECT_EQ(container::promptAgentAutomationCommandURL(fileSystem, temp.path()),
              fs::path("/containers/group/PromptAgentAutomationCommand.json"));
    EXPECT_FALSE(container::promptAgentAutomationCommandURL(FakeFileSystem(), std::nullopt));
}

// Old agents wrote a bare service name or left keys out; what is not a record
// at all is refused.
TEST(QuillfortPromptListenerRecord, LenientReadForm) {
    const std::vector<std::pair<std::string, std::optional<QuillfortPromptListenerRecord>>> cases{
        {R"("agent.service")", record(Kind::machServiceXPC, "agent.service")},
        {R"({})", record(Kind::machServiceXPC, kDefaultService)},
        {R"({"sessionIdentifier":"S","transport":null})", record(Kind::machServiceXPC, kDefaultService, {}, {}, "S")},
        {R"({"requestsDirectoryPath":"/tmp/r"})", record(Kind::fileRequestResponse, {}, "/tmp/r", "")},
        {R"({"responsesDirectoryPath":"/s","machServiceName":"kept"})",
         record(Kind::fileRequestResponse, "kept", "", "/s")},
        {R"({"transport":"machServiceXPC","requestsDirectoryPath":"/r"})",
         record(Kind::machServiceXPC, kDefaultService, "/r")},
        {R"({"transport":"fileRequestResponse"})", record(Kind::fileRequestResponse, {}, "", "")},
        {R"({"transport":"quic"})", std::nullopt}, {R"({"machServiceName":5})", std::nullopt},
        {R"({"requestsDirectoryPath":["/r"]})", std::nullopt}, {"[1]", std::nullopt},
    };
    for (const auto& [json, expected] : cases) {
        const auto decoded = decodeJson<QuillfortPromptListenerRecord>(json);
        EXPECT_EQ(decoded ? std::optional(*decoded) : std::nullopt, expected) << json;
    }
}

TEST(QuillfortPromptListenerRecord, UsableNeedsNonBlankEssentials) {
    // The manifest load test holds the usable records and a blank service name.
    const std::vector<std::pair<QuillfortPromptListenerRecord, bool>> cases{
        {record(Kind::machServiceXPC, {}, "/r", "/s"), false},
        {record(Kind::fileRequestResponse, {}, "/r", "/s"), true},  // session not needed
        {record(Kind::fileRequestResponse, {}, "/r", " \n"), false},
        {record(Kind::fileRequestResponse, {}, {}, "/s"), false},
    };
    for (const auto& [value, usable] : cases) {
        EXPECT_EQ(QuillfortPromptEndpointStore::isUsable(value), usable) << value;
    }
}

}  // namespace
}  // namespace quillfort
