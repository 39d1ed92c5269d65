#include "QuillfortAgent/ui/RulesView.hpp"

#include <QCheckBox>
#include <QComboBox>
#include <QLabel>
#include <QLineEdit>
#include <QTableView>

#include "QuillfortAgent/host/AgentFlowMonitor.hpp"
#include "QuillfortAgent/ui/NetworkView.hpp"
#include "QuillfortAgent/ui/PromptNotifier.hpp"
#include "QuillfortAgent/ui/QtMainThreadExecutor.hpp"
#include "tests/QuillfortAgent/ui/UiHarness.hpp"
#include "tests/testsupport/SequentialUuidSource.hpp"
#include "tests/testsupport/TemporaryDirectory.hpp"

namespace quillfort::ui {
namespace {

using namespace std::chrono_literals;
using quillfort::testing::sampleDate;
using quillfort::testing::sampleUuid;
using testing::UiHarness;

Rule rule(std::uint64_t n, const std::string& name, const std::string& host, RuleAction action = RuleAction::allow) {
    Rule r = quillfort::testing::sampleRule();
    r.id = sampleUuid(n);
    r.name = name;
    r.action = action;
    r.destination = {RuleDestination::hostnameExact(host)};
    return r;
}

// A rule book on a temporary folder whose steps run at once (it is not
// started) and publish through the Qt event loop.
struct Rules {
    Rules() {
        EXPECT_TRUE(RuleSnapshotStore(*fileSystem, snapshot)
                        .save({sampleDate(), {rule(1, "Allow curl", "api.example.com"),
                                              rule(2, "Allow git", "github.com"),
                                              rule(3, "Block telemetry", "metrics.vendor.net", RuleAction::drop)}}));
        book = AgentRuleBook::make({fileSystem, snapshot, folder.path() / "config" / "rule-expiries.json", clock,
                                    std::make_shared<quillfort::testing::SequentialUuidSource>(500),
                                    std::make_shared<QtMainThreadExecutor>()});
        book->state().set(book->read());
    }
    std::vector<Rule> onDisk() const { return RuleSnapshotStore(*fileSystem, snapshot).load(sampleDate()).value().rules; }

    quillfort::testing::TemporaryDirectory folder;
    std::shared_ptr<quillfort::testing::FakeFileSystem> fileSystem =
        std::make_shared<quillfort::testing::FakeFileSystem>(folder.path());
    std::filesystem::path snapshot = folder.path() / "shared" / "RuleSnapshot.json";
    std::shared_ptr<quillfort::testing::SampleClock> clock = std::make_shared<quillfort::testing::SampleClock>();
    std::shared_ptr<AgentRuleBook> book;
};

void selectRow(QTableView* table, int row) {
    table->selectRow(row);
    UiHarness::settle();
}

// What a user does with the rules, and all of it true in the files: find a
// rule by part of its host, switch it off, delete another and undo it, give a
// third an hour.
TEST(RulesView, SearchSwitchDeleteUndoAndExpiryReachTheFiles) {
    testing::application();
    Rules rules;
    RulesView view(rules.book, nullptr, [&] { return dateFrom(rules.clock->now()); });
    view.show();
    auto* table = view.findChild<QTableView*>("RulesTable");

    view.findChild<QLineEdit*>("RuleSearchField")->setText("hub.co");
    UiHarness::settle();
    ASSERT_EQ(table->model()->rowCount(), 1);
    EXPECT_EQ(view.findChild<QLabel*>("RuleCountText")->text(), "1 of 3 rules");
    selectRow(table, 0);
    QTest::mouseClick(view.findChild<QCheckBox*>("RuleEnabledSwitch"), Qt::LeftButton);
    UiHarness::settle();
    EXPECT_FALSE(rules.onDisk()[1].enabled);
    EXPECT_EQ(table->model()->index(0, 0).data(Qt::CheckStateRole), Qt::Unchecked);

    view.findChild<QLineEdit*>("RuleSearchField")->clear();
    UiHarness::settle();
    selectRow(table, 0);
    QTest::mouseClick(view.findChild<QAbstractButton*>("RuleDeleteButton"), Qt::LeftButton);
    UiHarness::settle();
    ASSERT_EQ(rules.onDisk().size(), 2u);
    EXPECT_EQ(view.findChild<QLabel*>("RuleUndoText")->text(), "Deleted \u201cAllow curl\u201d.");
    QTest::mouseClick(view.findChild<QAbstractButton*>("RuleUndoButton"), Qt::LeftButton);
    UiHarness::settle();
    ASSERT_EQ(rules.onDisk().size(), 3u);
    EXPECT_EQ(rules.onDisk()[0].name, "Allow curl");
    EXPECT_FALSE(view.findChild<QWidget*>("RuleUndoBar")->isVisible());

    selectRow(table, 2);
    auto* ends = view.findChild<QComboBox*>("RuleExpiryPicker");
    ends->activated(ends->findText("In 1 hour"));
    UiHarness::settle();
    EXPECT_EQ(rules.book->state().value().expiries, (std::map<Uuid, Date>{{sampleUuid(3), sampleDate() + 1h}}));
    EXPECT_EQ(table->model()->index(2, 6).data().toString(), "in 1 h");
}

FlowFilterEvent flowEvent(std::uint64_t n, const std::string& host, FlowDecisionAction action,
                          FlowFilterDecisionSource source, std::optional<Uuid> rule = {}) {
    FlowFilterEvent event;
    event.id = sampleUuid(n);
    event.recordedAt = sampleDate() + std::chrono::seconds(n);
    event.kind = FlowFilterEventKind::decided;
    event.context = quillfort::testing::sampleFlowContext();
    event.context.matchedHostname = host;
    event.decision = FlowDecision{action, "reason", rule, std::nullopt, 0};
    event.decisionSource = source;
    return event;
}

// A blocked flow found by its decision names the rule that blocked it, and
// "Block…" makes a rule from it through the decision window's choices.
TEST(NetworkView, BlockMakesARuleFromTheChosenFlowThroughTheDecisionWindow) {
    UiHarness ui;
    Rules rules;
    const auto eventsFile = rules.folder.path() / "shared" / "FlowFilterMonitorSnapshot.json";
    FlowFilterEventSnapshot events{sampleDate(),
                                   {flowEvent(1, "api.example.com", FlowDecisionAction::allow, FlowFilterDecisionSource::explicitRule, sampleUuid(1)),
                                    flowEvent(2, "metrics.vendor.net", FlowDecisionAction::drop, FlowFilterDecisionSource::explicitRule, sampleUuid(3)),
                                    flowEvent(3, "ads.example.org", FlowDecisionAction::allow, FlowFilterDecisionSource::defaultPermissiveAllow)}};
    ASSERT_TRUE(rules.fileSystem->writeFileAtomically(eventsFile, encodeCompact(events)));
    auto flows = AgentFlowMonitor::make(rules.fileSystem, eventsFile, std::make_shared<QtMainThreadExecutor>());
    flows->events().set(flows->read());
    NetworkView view(flows, rules.book, ui.coordinator);
    view.show();
    auto* table = view.findChild<QTableView*>("FlowTable");
    ASSERT_EQ(table->model()->rowCount(), 3);
    EXPECT_EQ(table->model()->index(0, 2).data().toString(), "ads.example.org");  // newest first

    auto* decisions = view.findChild<QComboBox*>("FlowDecisionPicker");
    decisions->setCurrentIndex(decisions->findText("Blocked"));
    decisions->activated(decisions->currentIndex());
    UiHarness::settle();
    ASSERT_EQ(table->model()->rowCount(), 1);
    EXPECT_EQ(table->model()->index(0, 7).data().toString(), "Block telemetry");
    selectRow(table, 0);
    QTest::mouseClick(view.findChild<QAbstractButton*>("FlowBlockButton"), Qt::LeftButton);
    UiHarness::settle();

    ASSERT_EQ(ui.coordinator->activePrompts().value().size(), 1u);
    const auto& session = ui.coordinator->activePrompts().value().front();
    EXPECT_EQ(session.selectedPreset, AgentPromptDecisionPreset::blockPermanent);
    EXPECT_EQ(ui.find<QLabel>("HeaderTitleLabel")->text(), "metrics.vendor.net:443");
    ui.click(ui.find<QAbstractButton>("BlockButton"));
    const auto written = rules.onDisk();
    ASSERT_EQ(written.size(), 4u);
    EXPECT_EQ(written.back().action, RuleAction::drop);
    EXPECT_EQ(written.back().scope, RuleScope::persistent);
    EXPECT_NE(std::ranges::find(written.back().destination, RuleDestination::hostnameExact("metrics.vendor.net")),
              written.back().destination.end());
}

class FakeSink final : public NotificationSink {
public:
    void notify(std::uint32_t replaces, const Notification& notification, std::function<void(std::uint32_t)> shown) override {
        shownNotifications.push_back(notification);
        replaced.push_back(replaces);
        shown(++lastID);
    }
    void close(std::uint32_t id) override { closed.push_back(id); }
    std::vector<Notification> shownNotifications;
    std::vector<std::uint32_t> replaced, closed;
    std::uint32_t lastID = 0;
};

// Only a prompt that arrives while the user works elsewhere is notified; its
// actions answer it, and an answer given any way withdraws the notification.
TEST(PromptNotifier, NotifiesWhileTheUserWorksElsewhereAndWithdrawsOnAnyAnswer) {
    UiHarness ui;
    bool elsewhere = false;
    int shows = 0;
    auto sink = std::make_unique<FakeSink>();
    FakeSink& fake = *sink;
    PromptNotifier notifier(ui.coordinator, std::move(sink), [&] { return elsewhere; }, [&] { ++shows; });

    ui.receive("here.example.com", 1);
    EXPECT_TRUE(fake.shownNotifications.empty());

    elsewhere = true;
    ui.receive("api.example.com", 2);
    ASSERT_EQ(fake.shownNotifications.size(), 1u);
    EXPECT_EQ(fake.shownNotifications[0].summary, "curl wants to connect to api.example.com");
    EXPECT_EQ(fake.shownNotifications[0].body, "api.example.com:443 over TCP\n1 more prompt waits.");
    ASSERT_EQ(fake.shownNotifications[0].actions.size(), 3u);
    fake.onAction(1, PromptNotifier::allowOnceAction);
    UiHarness::settle();
    ASSERT_EQ(ui.replies.size(), 1u);
    EXPECT_EQ(ui.replies[0].first, 2u);
    EXPECT_EQ(ui.replies[0].second.action, RuleAction::allow);
    EXPECT_EQ(ui.replies[0].second.scope, RuleScope::temporary);
    EXPECT_EQ(fake.closed, (std::vector<std::uint32_t>{1}));

    ui.receive("cdn.example.com", 3);
    ASSERT_EQ(fake.shownNotifications.size(), 2u);
    fake.onAction(2, PromptNotifier::showAction);
    EXPECT_EQ(shows, 1);
    ui.receive("cdn.example.com", 4);
    ui.coordinator->cancelPrompt(sampleUuid(4));
    UiHarness::settle();
    EXPECT_EQ(fake.closed, (std::vector<std::uint32_t>{1, 2, 3}));
    EXPECT_FALSE(notifier.notifiedPrompt());
}

}  // namespace
}  // namespace quillfort::ui
