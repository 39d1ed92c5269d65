#include "QuillfortAgent/coordinator/CachedRuleSnapshotReader.hpp"

#include <algorithm>

#include <gtest/gtest.h>

#include "contracts/RuleSnapshotStore.hpp"
#include "tests/testsupport/FakeFileSystem.hpp"
#include "tests/testsupport/ModelSamples.hpp"
#include "tests/testsupport/TemporaryDirectory.hpp"

namespace quillfort {
namespace {

using Operation = testing::FakeFileSystem::Operation;

struct SnapshotFixture {
    testing::TemporaryDirectory directory;
    std::shared_ptr<testing::FakeFileSystem> files = std::make_shared<testing::FakeFileSystem>();
    std::filesystem::path path = directory.path() / "RuleSnapshot.json";
    CachedRuleSnapshotReader reader{files, path};

    void write(std::vector<Rule> rules) {
        ASSERT_TRUE(RuleSnapshotStore(*files, path).replaceRules(std::move(rules), testing::sampleDate()));
    }
};

TEST(CachedRuleSnapshotReader, ReadsAnUnchangedSnapshotOnce) {
    SnapshotFixture f;
    f.write({testing::sampleRule()});
    const auto first = f.reader.currentRules();
    EXPECT_EQ(*first, std::vector<Rule>{testing::sampleRule()});
    // Every new prompt asks: an unchanged snapshot is handed out again, not copied.
    EXPECT_EQ(f.reader.currentRules(), first);
    EXPECT_EQ(f.files->count(Operation::readFile), 1);

    Rule renamed = testing::sampleRule();
    renamed.name = "Renamed";
    f.write({renamed});
    EXPECT_EQ(*f.reader.currentRules(), std::vector<Rule>{renamed});
    EXPECT_EQ(f.files->count(Operation::readFile), 2);
}

TEST(CachedRuleSnapshotReader, MissingOrUnreadableSnapshotGivesNoRules) {
    SnapshotFixture f;
    EXPECT_TRUE(f.reader.currentRules()->empty());

    f.write({testing::sampleRule()});
    f.files->failNext(Operation::readFile, EACCES);
    EXPECT_TRUE(f.reader.currentRules()->empty());
    EXPECT_EQ(f.reader.currentRules()->size(), 1u);  // a failed read is not cached

    f.files->failNext(Operation::fileIdentity, EIO);  // no identity: read without caching
    EXPECT_EQ(f.reader.currentRules()->size(), 1u);

    ASSERT_TRUE(f.files->writeFileAtomically(f.path, "{\"rules\": 3}"));
    EXPECT_TRUE(f.reader.currentRules()->empty());
}

}  // namespace
}  // namespace quillfort
