#include "QuillfortAgent/host/RuleSnapshotMerger.hpp"

#include <algorithm>

#include <gtest/gtest.h>

#include "tests/testsupport/FakeFileSystem.hpp"
#include "tests/testsupport/ModelSamples.hpp"
#include "tests/testsupport/SequentialUuidSource.hpp"
#include "tests/testsupport/TemporaryDirectory.hpp"

namespace quillfort {
namespace {

using Operation = testing::FakeFileSystem::Operation;

// A lasting allow whose rule is `rule` as the snapshot would hold it.
FlowPromptResponse lastingAnswer(Rule rule) {
    rule.action = RuleAction::allow;
    rule.scope = RuleScope::persistent;
    rule.origin = RuleOrigin::promptResolved;
    return {.promptID = testing::sampleUuid(7),
            .action = RuleAction::allow,
            .scope = RuleScope::persistent,
            .persist = true,
            .ruleSelection = std::nullopt,
            .suggestedRule = std::move(rule)};
}

Rule ruleNumbered(std::uint64_t n) {
    Rule rule = testing::sampleRule();
    rule.id = testing::sampleUuid(n);
    return rule;
}

struct MergerFixture {
    testing::TemporaryDirectory directory;
    std::shared_ptr<testing::FakeFileSystem> files = std::make_shared<testing::FakeFileSystem>();
    std::filesystem::path path = directory.path() / "RuleSnapshot.json";
    RuleSnapshotMerger merger{*files, path};
    testing::SequentialUuidSource ids;
    FlowPromptRequest request{testing::sampleUuid(7), testing::sampleFlowContext(), std::nullopt};

    void merge(const Rule& rule) { ASSERT_TRUE(merger.merge(request, lastingAnswer(rule), testing::sampleDate(), ids)); }
    [[nodiscard]] std::vector<Uuid> storedIDs() const {
        const auto stored = RuleSnapshotStore(*files, path).loadIfPresent();
        std::vector<Uuid> result;
        if (stored && *stored)
            for (const auto& rule : (*stored)->rules) result.push_back(rule.id);
        return result;
    }
};

TEST(RuleSnapshotMerger, RulesAnotherProcessWroteMeanwhileAreKept) {
    MergerFixture f;
    f.merge(ruleNumbered(1));
    // The filter side replaces the file with a rule set of its own.
    ASSERT_TRUE(RuleSnapshotStore(*f.files, f.path).replaceRules({ruleNumbered(1), ruleNumbered(9)}, testing::sampleDate()));

    f.merge(ruleNumbered(2));
    // Back to back, the file this process just wrote is not decoded again.
    const long reads = f.files->count(Operation::readFile, f.path);
    f.merge(ruleNumbered(3));
    EXPECT_EQ(f.files->count(Operation::readFile, f.path), reads);
    EXPECT_EQ(f.storedIDs(), (std::vector<Uuid>{testing::sampleUuid(1), testing::sampleUuid(9), testing::sampleUuid(2),
                                                testing::sampleUuid(3)}));
}

TEST(RuleSnapshotMerger, AnAnswerWhoseRuleIsAlreadyThereWritesOnlyWhatChanged) {
    MergerFixture f;
    f.merge(ruleNumbered(1));
    const long writes = f.files->count(Operation::writeFileAtomically, f.path);
    f.merge(ruleNumbered(1));
    Rule renamed = ruleNumbered(1);
    renamed.name = "Renamed";
    f.merge(renamed);  // same id, different rule: that is a change
    EXPECT_EQ(f.files->count(Operation::writeFileAtomically, f.path), writes + 1);
}

TEST(RuleSnapshotMerger, AnswersThatMakeNoRuleDoNotTouchTheFile) {
    MergerFixture f;
    FlowPromptResponse once = lastingAnswer(ruleNumbered(1));
    once.scope = RuleScope::temporary;
    FlowPromptResponse withoutRule = lastingAnswer(ruleNumbered(1));
    withoutRule.suggestedRule.reset();

    for (const auto& response : {once, withoutRule})
        ASSERT_TRUE(f.merger.merge(f.request, response, testing::sampleDate(), f.ids));

    EXPECT_TRUE(f.files->calls().empty());
}

}  // namespace
}  // namespace quillfort
