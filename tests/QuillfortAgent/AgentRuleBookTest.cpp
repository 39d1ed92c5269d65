#include "QuillfortAgent/host/AgentRuleBook.hpp"

#include <thread>

#include <gtest/gtest.h>

#include "QuillfortAgent/host/RuleSnapshotMerger.hpp"
#include "tests/testsupport/FakeFileSystem.hpp"
#include "tests/testsupport/ModelSamples.hpp"
#include "tests/testsupport/SequentialUuidSource.hpp"
#include "tests/testsupport/TemporaryDirectory.hpp"

namespace quillfort {
namespace {

using namespace std::chrono_literals;
using testing::sampleDate;
using testing::sampleUuid;

// Tasks wait until the test runs them.
class ManualExecutor final : public MainThreadExecutor {
public:
    void post(std::function<void()> task) override {
        std::lock_guard guard(lock);
        tasks.push_back(std::move(task));
    }
    void drain() {
        std::vector<std::function<void()>> now;
        {
            std::lock_guard guard(lock);
            now.swap(tasks);
        }
        for (auto& task : now) task();
    }
    std::mutex lock;
    std::vector<std::function<void()>> tasks;
};

Rule rule(std::uint64_t n, RuleScope scope = RuleScope::persistent) { return testing::numberedRule(n, scope); }

struct RuleBookHarness {
    RuleBookHarness() {
        fileSystem->setAppGroupContainer(folder.path() / "shared");
    }
    std::shared_ptr<AgentRuleBook> make() {
        return AgentRuleBook::make({fileSystem, snapshot, expiries, clock, std::make_shared<testing::SequentialUuidSource>(100),
                                    mainThread});
    }
    std::vector<Rule> rulesOnDisk() const {
        return RuleSnapshotStore(*fileSystem, snapshot).load(sampleDate()).value().rules;
    }
    std::map<Uuid, Date> expiriesOnDisk() const { return RuleExpiryStore(*fileSystem, expiries).loadMap().value(); }

    testing::TemporaryDirectory folder;
    std::shared_ptr<testing::FakeFileSystem> fileSystem = std::make_shared<testing::FakeFileSystem>(folder.path());
    std::filesystem::path snapshot = folder.path() / "shared" / "RuleSnapshot.json";
    std::filesystem::path expiries = folder.path() / "config" / "quillfort" / "rule-expiries.json";
    std::shared_ptr<testing::SampleClock> clock = std::make_shared<testing::SampleClock>();
    std::shared_ptr<ManualExecutor> mainThread = std::make_shared<ManualExecutor>();
};

// Session rules last until the session ends: the next agent's start removes
// what an earlier run left, and keeps every other rule as it was. Rules whose
// end passed while no agent ran go at the same time.
TEST(AgentRuleBook, StartRemovesLeftoverSessionRulesAndRulesThatEndedMeanwhile) {
    RuleBookHarness h;
    ASSERT_TRUE(RuleSnapshotStore(*h.fileSystem, h.snapshot)
                    .save({sampleDate(), {rule(1), rule(2, RuleScope::session), rule(3), rule(4, RuleScope::session)}}));
    ASSERT_TRUE(RuleExpiryStore(*h.fileSystem, h.expiries)
                    .saveMap({{sampleUuid(3), sampleDate() - 1min}, {sampleUuid(1), sampleDate() + 1h}}));
    auto book = h.make();
    book->start();

    const auto rules = h.rulesOnDisk();
    ASSERT_EQ(rules.size(), 1u);
    EXPECT_EQ(rules[0], rule(1));
    EXPECT_EQ(h.expiriesOnDisk(), (std::map<Uuid, Date>{{sampleUuid(1), sampleDate() + 1h}}));
    EXPECT_EQ(book->state().value().rules, rules);
    EXPECT_EQ(book->nextExpiry(), sampleDate() + 1h);

    // Another writer (the tool, the prompt path) replaces the file: the book follows.
    ASSERT_TRUE(RuleSnapshotEditor(*h.fileSystem, h.snapshot).edit(RuleChanges::setEnabled(sampleUuid(1), false), sampleDate()));
    for (int i = 0; i < 500 && book->state().value().rules == rules; ++i) {
        std::this_thread::sleep_for(10ms);
        h.mainThread->drain();
    }
    ASSERT_EQ(book->state().value().rules.size(), 1u);
    EXPECT_FALSE(book->state().value().rules[0].enabled);
}

// Each rule leaves at its own end, seen on the book's clock; "never" takes
// an end away, and an end set in the past takes the rule at once.
TEST(AgentRuleBook, TimedRulesLeaveTheSnapshotAtTheirEnd) {
    RuleBookHarness h;
    ASSERT_TRUE(RuleSnapshotStore(*h.fileSystem, h.snapshot).save({sampleDate(), {rule(1), rule(2), rule(3), rule(4)}}));
    auto book = h.make();
    ASSERT_TRUE(book->applySetExpiry(sampleUuid(1), sampleDate() + 1h));
    ASSERT_TRUE(book->applySetExpiry(sampleUuid(2), sampleDate() + 24h));
    ASSERT_TRUE(book->applySetExpiry(sampleUuid(3), sampleDate() + 15min));
    ASSERT_TRUE(book->applySetExpiry(sampleUuid(3), std::nullopt));
    EXPECT_FALSE(book->applySetExpiry(sampleUuid(9), sampleDate() + 1h));

    h.clock->at = sampleDate() + 59min;
    ASSERT_TRUE(book->removeExpiredRules());
    EXPECT_EQ(h.rulesOnDisk().size(), 4u);
    h.clock->at = sampleDate() + 61min;
    ASSERT_TRUE(book->removeExpiredRules());
    EXPECT_EQ(h.rulesOnDisk(), (std::vector<Rule>{rule(2), rule(3), rule(4)}));
    EXPECT_EQ(h.expiriesOnDisk(), (std::map<Uuid, Date>{{sampleUuid(2), sampleDate() + 24h}}));
    EXPECT_EQ(book->nextExpiry(), sampleDate() + 24h);

    ASSERT_TRUE(book->applySetExpiry(sampleUuid(4), sampleDate()));
    EXPECT_EQ(h.rulesOnDisk(), (std::vector<Rule>{rule(2), rule(3)}));
}

// The prompt path (bridge queue) and the rule book (its own queue) write the
// same file at the same time; the snapshot's lock keeps every rule of both.
TEST(AgentRuleBook, WritersOnTwoThreadsLoseNoRule) {
    RuleBookHarness h;
    ASSERT_TRUE(h.fileSystem->createDirectories(h.snapshot.parent_path()));
    constexpr int perWriter = 30;
    std::thread prompts([&] {
        RuleSnapshotMerger merger(*h.fileSystem, h.snapshot);
        testing::SequentialUuidSource ids(1);
        for (int i = 0; i < perWriter; ++i) {
            FlowPromptResponse response;
            response.action = RuleAction::allow;
            response.scope = RuleScope::persistent;
            response.suggestedRule = rule(1000 + static_cast<std::uint64_t>(i));
            ASSERT_TRUE(merger.merge(FlowPromptRequest{}, response, sampleDate(), ids));
        }
    });
    std::thread edits([&] {
        const RuleSnapshotEditor editor(*h.fileSystem, h.snapshot);
        for (int i = 0; i < perWriter; ++i) {
            ASSERT_TRUE(editor.edit(
                [i](std::vector<Rule>& rules) -> std::expected<bool, std::string> {
                    rules.push_back(rule(2000 + static_cast<std::uint64_t>(i)));
                    return true;
                },
                sampleDate()));
        }
    });
    prompts.join();
    edits.join();
    EXPECT_EQ(h.rulesOnDisk().size(), 2u * perWriter);
}

}  // namespace
}  // namespace quillfort
