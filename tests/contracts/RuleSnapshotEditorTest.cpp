#include "contracts/RuleSnapshotEditor.hpp"

#include <gtest/gtest.h>

#include "contracts/RuleExpiryStore.hpp"
#include "tests/testsupport/FakeFileSystem.hpp"
#include "tests/testsupport/ModelSamples.hpp"
#include "tests/testsupport/TemporaryDirectory.hpp"

namespace quillfort {
namespace {

using testing::sampleDate;
using testing::sampleUuid;

Rule rule(std::uint64_t n, RuleScope scope = RuleScope::persistent) { return testing::numberedRule(n, scope); }

std::vector<Uuid> ids(const std::vector<Rule>& rules) {
    std::vector<Uuid> out;
    for (const auto& r : rules) out.push_back(r.id);
    return out;
}

// The rules view loaded the snapshot {1, 2}; before its edit lands, another
// writer (the prompt path, the tool) changed the file. The edit applies to
// the file as it is then, so both changes are kept and nothing gone comes back.
TEST(RuleSnapshotEditor, AConcurrentEditKeepsBothChanges) {
    struct Case {
        const char* name;
        RuleChange other;
        RuleChange ours;
        std::vector<std::uint64_t> expectedIDs;
        bool firstEnabled;
        RuleAction firstAction;
        const char* error;  // what our edit reports instead, if it cannot apply
    };
    const Case cases[] = {
        {"other adds, we disable", [](auto& r) { r.push_back(rule(3)); return std::expected<bool, std::string>(true); },
         RuleChanges::setEnabled(sampleUuid(1), false), {1, 2, 3}, false, RuleAction::allow, nullptr},
        {"both change one rule", RuleChanges::setAction(sampleUuid(1), RuleAction::drop),
         RuleChanges::setEnabled(sampleUuid(1), false), {1, 2}, false, RuleAction::drop, nullptr},
        {"other deletes, we change another", RuleChanges::remove(sampleUuid(2)),
         RuleChanges::setAction(sampleUuid(1), RuleAction::ask), {1}, true, RuleAction::ask, nullptr},
        {"other adds, we undo a delete", [](auto& r) { r.push_back(rule(3)); return std::expected<bool, std::string>(true); },
         RuleChanges::restore(rule(4), 1), {1, 4, 2, 3}, true, RuleAction::allow, nullptr},
        {"other deletes the rule we change", RuleChanges::remove(sampleUuid(1)),
         RuleChanges::setEnabled(sampleUuid(1), false), {2}, true, RuleAction::allow, "deleted meanwhile"},
        {"other restores what we undo", [](auto& r) { r.push_back(rule(4)); return std::expected<bool, std::string>(true); },
         RuleChanges::restore(rule(4), 0), {1, 2, 4}, true, RuleAction::allow, "in the rule snapshot again"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        testing::TemporaryDirectory folder;
        testing::FakeFileSystem fileSystem;
        const auto path = folder.path() / "shared" / "RuleSnapshot.json";
        const RuleSnapshotEditor editor(fileSystem, path);
        ASSERT_TRUE(RuleSnapshotStore(fileSystem, path).save({sampleDate(), {rule(1), rule(2)}}));
        ASSERT_TRUE(editor.edit(c.other, sampleDate()));

        const Date later = sampleDate() + std::chrono::minutes(1);
        auto edited = editor.edit(c.ours, later);
        auto stored = RuleSnapshotStore(fileSystem, path).load(sampleDate());
        ASSERT_TRUE(stored);
        std::vector<Uuid> expected;
        for (auto n : c.expectedIDs) expected.push_back(sampleUuid(n));
        EXPECT_EQ(ids(stored->rules), expected);
        if (c.error) {
            ASSERT_FALSE(edited);
            EXPECT_NE(edited.error().description.find(c.error), std::string::npos) << edited.error().description;
            continue;
        }
        ASSERT_TRUE(edited) << edited.error().description;
        EXPECT_EQ(edited->snapshot, *stored);
        EXPECT_EQ(stored->generatedAt, later);
        EXPECT_EQ(stored->rules.front().enabled, c.firstEnabled);
        EXPECT_EQ(stored->rules.front().action, c.firstAction);
    }
}

// A snapshot that does not decode is reported and left as it is, never
// replaced by an edit of nothing.
TEST(RuleSnapshotEditor, LeavesAnUnreadableSnapshotAlone) {
    testing::TemporaryDirectory folder;
    testing::FakeFileSystem fileSystem;
    const auto path = folder.path() / "RuleSnapshot.json";
    testing::writeText(path, "{not json");
    auto edited = RuleSnapshotEditor(fileSystem, path).edit(RuleChanges::removeAll({sampleUuid(1)}), sampleDate());
    ASSERT_FALSE(edited);
    EXPECT_NE(edited.error().description.find("left as it is"), std::string::npos);
    EXPECT_EQ(testing::readText(path), "{not json");
}

TEST(RuleSnapshotEditor, FindsARuleByAUniquePrefixOfItsID) {
    const std::vector<Rule> rules{rule(0x11), rule(0x12)};
    EXPECT_EQ(findRuleByIDPrefix(rules, "00000000-0000-4000-8000-000000000011")->id, sampleUuid(0x11));
    EXPECT_EQ(findRuleByIDPrefix(rules, sampleUuid(0x12).uppercaseString()).value().id, sampleUuid(0x12));
    for (const auto& [prefix, error] : {std::pair{"0000", "more than one"}, std::pair{"000", "too short"},
                                        std::pair{"ffff", "No rule has an id"}}) {
        auto found = findRuleByIDPrefix(rules, prefix);
        ASSERT_FALSE(found) << prefix;
        EXPECT_NE(found.error().find(error), std::string::npos) << found.error();
    }
}

TEST(RuleExpiryDuration, ReadsOneCountAndOneUnit) {
    using std::chrono::seconds;
    const std::pair<const char*, std::optional<seconds>> cases[] = {
        {"90s", seconds(90)}, {"15m", seconds(900)}, {"2h", seconds(7200)}, {"1d", seconds(86400)},
        {"0m", std::nullopt}, {"-5m", std::nullopt}, {"5", std::nullopt},   {"5w", std::nullopt},
        {"1.5h", std::nullopt}, {" 5m", std::nullopt}, {"m", std::nullopt}, {"3651d", std::nullopt},
        {"99999999999999999999s", std::nullopt},
    };
    for (const auto& [text, expected] : cases) EXPECT_EQ(RuleExpiryDuration::parse(text), expected) << text;

    const Date now = sampleDate();
    using namespace std::chrono_literals;
    const std::pair<Date, const char*> remaining[] = {
        {now - 1s, "now"}, {now + 30s, "in 30 s"}, {now + 59min + 30s, "in 1 h"}, {now + 90min, "in 1 h 30 min"},
        {now + 26h, "in 1 d 2 h"}, {now + 48h, "in 2 d"},
    };
    for (const auto& [end, text] : remaining) EXPECT_EQ(RuleExpiryDuration::remaining(end, now), text);
}

}  // namespace
}  // namespace quillfort
