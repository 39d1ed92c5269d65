#include "QuillfortAgent/ui/NetworkView.hpp"

#include <algorithm>

#include <QAbstractTableModel>
#include <QComboBox>
#include <QDateTime>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QItemSelectionModel>
#include <QLineEdit>
#include <QMenu>
#include <QTableView>
#include <QVBoxLayout>

#include "QuillfortAgent/coordinator/AgentPromptCoordinator.hpp"
#include "QuillfortAgent/ui/QFComponents.hpp"

namespace quillfort::ui {

namespace VM = NetworkViewModel;
using N = QFColorName;
using F = QFFontName;

namespace {

QString q(std::string_view text) { return QString::fromUtf8(text.data(), static_cast<int>(text.size())); }

enum Column { timeColumn, processColumn, hostColumn, portColumn, protocolColumn, decisionColumn, sourceColumn, ruleColumn, flowColumns };

std::string localTime(Date date) {
    return QDateTime::fromSecsSinceEpoch(date.time_since_epoch().count()).toString("HH:mm:ss").toStdString();
}

}  // namespace

// Rows are made when the table asks for them: the visible ones only, so a
// long list costs its indexes and nothing more.
class FlowEventsModel final : public QAbstractTableModel {
public:
    using QAbstractTableModel::QAbstractTableModel;

    void reset(std::shared_ptr<const FlowFilterEventSnapshot> snapshot, std::vector<std::size_t> visible,
               std::map<Uuid, std::string> ruleNames) {
        beginResetModel();
        snapshot_ = std::move(snapshot);
        visible_ = std::move(visible);
        ruleNames_ = std::move(ruleNames);
        rows_.assign(visible_.size(), std::nullopt);
        endResetModel();
    }

    [[nodiscard]] const FlowFilterEvent* eventAt(int row) const {
        if (!snapshot_ || row < 0 || row >= static_cast<int>(visible_.size())) return nullptr;
        return &snapshot_->events[visible_[static_cast<std::size_t>(row)]];
    }

    int rowCount(const QModelIndex& parent) const override {
        return parent.isValid() ? 0 : static_cast<int>(visible_.size());
    }
    int columnCount(const QModelIndex& parent) const override { return parent.isValid() ? 0 : flowColumns; }

    QVariant headerData(int section, Qt::Orientation orientation, int role) const override {
        if (orientation != Qt::Horizontal || role != Qt::DisplayRole) return {};
        static const char* titles[] = {"Time", "Process", "Host", "Port", "Protocol", "Decision", "Source", "Rule"};
        return QString(titles[section]);
    }

    QVariant data(const QModelIndex& index, int role) const override {
        const FlowFilterEvent* flow = eventAt(index.row());
        if (!flow) return {};
        if (role != Qt::DisplayRole && role != Qt::ForegroundRole && role != Qt::ToolTipRole) return {};
        // Worded once per row and kept: a repaint asks for every cell and role.
        auto& cached = rows_[static_cast<std::size_t>(index.row())];
        if (!cached) cached = VM::row(*flow, ruleNames_, localTime);
        const FlowRow& row = *cached;
        if (role == Qt::ForegroundRole) {
            if (index.column() != decisionColumn) return {};
            return QFPalette::color(row.blocked ? N::qfRed : N::qfGreen);
        }
        if (role == Qt::ToolTipRole) return q(flow->summary);
        switch (index.column()) {
            case timeColumn: return q(row.time);
            case processColumn: return q(row.process);
            case hostColumn: return q(row.host);
            case portColumn: return q(row.port);
            case protocolColumn: return q(row.protocol);
            case decisionColumn: return q(row.decision);
            case sourceColumn: return q(row.source);
            case ruleColumn: return q(row.rule);
            default: return {};
        }
    }

private:
    std::shared_ptr<const FlowFilterEventSnapshot> snapshot_;
    std::vector<std::size_t> visible_;
    std::map<Uuid, std::string> ruleNames_;
    mutable std::vector<std::optional<FlowRow>> rows_;
};

NetworkView::NetworkView(std::shared_ptr<AgentFlowMonitor> flows, std::shared_ptr<AgentRuleBook> rules,
                         std::shared_ptr<AgentPromptCoordinator> coordinator, QWidget* parent)
    : QWidget(parent), flows_(std::move(flows)), rules_(std::move(rules)), coordinator_(std::move(coordinator)) {
    setObjectName("NetworkView");
    setAccessibleName("Network");
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(24, 18, 24, 18);
    layout->setSpacing(10);

    auto* toolbar = new QHBoxLayout;
    toolbar->setSpacing(10);
    search_ = new QLineEdit(this);
    search_->setObjectName("FlowSearchField");
    search_->setAccessibleName("Filter flows by process or host");
    search_->setPlaceholderText("Filter by process or host\u2026");
    search_->setClearButtonEnabled(true);
    toolbar->addWidget(search_, 1);
    decisionPicker_ = new QComboBox(this);
    decisionPicker_->setObjectName("FlowDecisionPicker");
    decisionPicker_->setAccessibleName("Show decisions");
    for (auto filter : {FlowDecisionFilter::all, FlowDecisionFilter::allowed, FlowDecisionFilter::blocked})
        decisionPicker_->addItem(q(VM::filterTitle(filter)), static_cast<int>(filter));
    toolbar->addWidget(decisionPicker_);
    allowButton_ = new QFAccentButton("Allow\u2026", false, this);
    allowButton_->setObjectName("FlowAllowButton");
    allowButton_->setAccessibleName("Make an allow rule from the chosen flow");
    allowButton_->setToolTip("Make an allow rule from the chosen flow in the decision window");
    blockButton_ = new QFAccentButton("Block\u2026", true, this);
    blockButton_->setObjectName("FlowBlockButton");
    blockButton_->setAccessibleName("Make a block rule from the chosen flow");
    blockButton_->setToolTip("Make a block rule from the chosen flow in the decision window");
    toolbar->addWidget(blockButton_);
    toolbar->addWidget(allowButton_);
    layout->addLayout(toolbar);

    countText_ = new QFText({}, F::qfCaption, N::qfText2, this);
    countText_->setObjectName("FlowCountText");
    layout->addWidget(countText_);

    table_ = new QTableView(this);
    table_->setObjectName("FlowTable");
    table_->setAccessibleName("Flows");
    model_ = new FlowEventsModel(table_);
    table_->setModel(model_);
    table_->setSelectionBehavior(QAbstractItemView::SelectRows);
    table_->setSelectionMode(QAbstractItemView::SingleSelection);
    table_->setAlternatingRowColors(true);
    table_->setShowGrid(false);
    table_->setWordWrap(false);
    table_->verticalHeader()->hide();
    // Fixed row heights and column widths: the table never measures ten thousand rows.
    table_->verticalHeader()->setSectionResizeMode(QHeaderView::Fixed);
    table_->verticalHeader()->setDefaultSectionSize(24);
    table_->horizontalHeader()->setSectionResizeMode(QHeaderView::Interactive);
    table_->horizontalHeader()->setSectionResizeMode(ruleColumn, QHeaderView::Stretch);
    for (auto [column, width] : {std::pair{timeColumn, 72}, std::pair{processColumn, 140}, std::pair{hostColumn, 170},
                                 std::pair{portColumn, 48}, std::pair{protocolColumn, 66}, std::pair{decisionColumn, 72},
                                 std::pair{sourceColumn, 104}})
        table_->setColumnWidth(column, width);
    table_->setContextMenuPolicy(Qt::CustomContextMenu);
    layout->addWidget(table_, 1);

    problemText_ = new QFText({}, F::qfCaption, N::qfRed, this);
    problemText_->setObjectName("FlowProblemText");
    problemText_->setWordWrap(true);
    problemText_->hide();
    layout->addWidget(problemText_);

    connect(search_, &QLineEdit::textChanged, this, [this] { refresh(); });
    connect(decisionPicker_, &QComboBox::activated, this, [this] { refresh(); });
    connect(table_->selectionModel(), &QItemSelectionModel::selectionChanged, this, [this] { updateButtons(); });
    connect(allowButton_, &QAbstractButton::clicked, this, [this] { makeRule(RuleAction::allow); });
    connect(blockButton_, &QAbstractButton::clicked, this, [this] { makeRule(RuleAction::drop); });
    connect(table_, &QWidget::customContextMenuRequested, this, [this](const QPoint& at) {
        if (!table_->indexAt(at).isValid()) return;
        table_->selectRow(table_->indexAt(at).row());
        QMenu menu(this);
        connect(menu.addAction("Allow\u2026"), &QAction::triggered, this, [this] { makeRule(RuleAction::allow); });
        connect(menu.addAction("Block\u2026"), &QAction::triggered, this, [this] { makeRule(RuleAction::drop); });
        menu.exec(table_->viewport()->mapToGlobal(at));
    });

    subscriptions_.push_back(flows_->events().subscribe([this](const auto&) { refresh(); }));
    subscriptions_.push_back(rules_->state().subscribe([this](const auto&) { refresh(); }));
    refresh();
}

NetworkView::~NetworkView() = default;

void NetworkView::showEvent(QShowEvent* event) {
    flows_->start();  // nothing is read before someone looks
    QWidget::showEvent(event);
}

void NetworkView::refresh() {
    const auto& events = flows_->events().value();
    // The chosen flow stays chosen while newer ones arrive above it.
    const auto selected = table_->selectionModel()->selectedRows();
    const FlowFilterEvent* chosen = selected.isEmpty() ? nullptr : model_->eventAt(selected.front().row());
    const std::optional<Uuid> chosenID = chosen ? std::optional(chosen->id) : std::nullopt;

    const auto snapshot = events.snapshot ? events.snapshot : std::make_shared<const FlowFilterEventSnapshot>();
    if (snapshot != snapshot_) {
        snapshot_ = snapshot;
        searchIndex_ = VM::searchIndex(snapshot_->events);
    }
    const auto filter = static_cast<FlowDecisionFilter>(decisionPicker_->currentData().toInt());
    auto visible = VM::visibleEvents(searchIndex_, search_->text().toStdString(), filter);
    const std::size_t decided = static_cast<std::size_t>(
        std::ranges::count_if(searchIndex_.decision, [](auto d) { return d != VM::FlowSearchIndex::Decision::none; }));
    countText_->setText(q(VM::countText(visible.size(), decided)));
    {
        const QSignalBlocker block(table_->selectionModel());
        model_->reset(snapshot_, std::move(visible), VM::ruleNames(rules_->state().value().rules));
        if (chosenID)
            for (int row = 0; row < model_->rowCount({}); ++row)
                if (model_->eventAt(row)->id == *chosenID) table_->selectRow(row);
    }
    problemText_->setVisible(events.problem.has_value());
    if (events.problem) problemText_->setText(q("The flow events cannot be read: " + *events.problem));
    updateButtons();
}

void NetworkView::updateButtons() {
    const bool chosen = table_->selectionModel()->hasSelection();
    allowButton_->setEnabled(chosen);
    blockButton_->setEnabled(chosen);
}

void NetworkView::makeRule(RuleAction action) {
    const auto selected = table_->selectionModel()->selectedRows();
    if (selected.isEmpty()) return;
    const FlowFilterEvent* event = model_->eventAt(selected.front().row());
    if (!event) return;
    auto request = VM::ruleRequest(*event, Uuid::random(), dateFrom(std::chrono::system_clock::now()));
    const auto preset = action == RuleAction::allow ? AgentPromptDecisionPreset::allowPermanent
                                                    : AgentPromptDecisionPreset::blockPermanent;
    coordinator_->receivePromptFirst(
        request, preset, [rules = rules_, request](std::optional<FlowPromptResponse> response, std::optional<std::string>) {
            if (response) rules->persistAnswer(request, *response);
        });
}

}  // namespace quillfort::ui
