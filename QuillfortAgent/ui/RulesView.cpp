#include "QuillfortAgent/ui/RulesView.hpp"

#include <QAbstractTableModel>
#include <QCheckBox>
#include <QComboBox>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QItemSelectionModel>
#include <QKeySequence>
#include <QLineEdit>
#include <QShortcut>
#include <QTableView>
#include <QVBoxLayout>

#include "QuillfortAgent/ui/QFComponents.hpp"

namespace quillfort::ui {

namespace VM = RulesViewModel;
using N = QFColorName;
using F = QFFontName;

namespace {

QString q(std::string_view text) { return QString::fromUtf8(text.data(), static_cast<int>(text.size())); }

enum Column { enabledColumn, nameColumn, actionColumn, scopeColumn, conditionsColumn, originColumn, endsColumn, ruleColumns };

}  // namespace

// The rows as the table shows them; a switch in the first column asks the
// view to change the rule, and the table shows the change once the rule book
// has made it.
class RulesTableModel final : public QAbstractTableModel {
public:
    using Toggle = std::function<void(const Uuid&, bool)>;
    RulesTableModel(Toggle toggle, QObject* parent) : QAbstractTableModel(parent), toggle_(std::move(toggle)) {}

    void setRows(const std::vector<RuleRow>* rows) {
        beginResetModel();
        rows_ = rows;
        endResetModel();
    }

    int rowCount(const QModelIndex& parent) const override {
        return parent.isValid() || !rows_ ? 0 : static_cast<int>(rows_->size());
    }
    int columnCount(const QModelIndex& parent) const override { return parent.isValid() ? 0 : columnCount_; }

    QVariant headerData(int section, Qt::Orientation orientation, int role) const override {
        if (orientation != Qt::Horizontal || role != Qt::DisplayRole) return {};
        static const char* titles[] = {"On", "Name", "Action", "Scope", "Conditions", "Origin", "Ends"};
        return QString(titles[section]);
    }

    Qt::ItemFlags flags(const QModelIndex& index) const override {
        auto flags = QAbstractTableModel::flags(index);
        if (index.column() == enabledColumn) flags |= Qt::ItemIsUserCheckable;
        return flags;
    }

    QVariant data(const QModelIndex& index, int role) const override {
        if (!rows_ || index.row() >= static_cast<int>(rows_->size())) return {};
        const RuleRow& row = (*rows_)[static_cast<std::size_t>(index.row())];
        if (role == Qt::CheckStateRole && index.column() == enabledColumn)
            return row.enabled ? Qt::Checked : Qt::Unchecked;
        if (role == Qt::ForegroundRole) {
            if (!row.enabled) return QFPalette::color(N::qfText3);
            if (index.column() == actionColumn)
                return QFPalette::color(row.action == RuleAction::allow  ? N::qfGreen
                                        : row.action == RuleAction::drop ? N::qfRed
                                                                         : N::qfAmber);
            return {};
        }
        if (role == Qt::FontRole && (index.column() == conditionsColumn)) return QFPalette::font(F::qfCaptionMono);
        if (role == Qt::AccessibleTextRole && index.column() == enabledColumn)
            return row.enabled ? QStringLiteral("enabled") : QStringLiteral("disabled");
        if (role == Qt::ToolTipRole && index.column() == conditionsColumn) return QString::fromStdString(row.conditions);
        if (role != Qt::DisplayRole) return {};
        switch (index.column()) {
            case nameColumn: return QString::fromStdString(row.name);
            case actionColumn: return QString::fromStdString(row.actionTitle);
            case scopeColumn: return QString::fromStdString(row.scopeTitle);
            case conditionsColumn: return QString::fromStdString(row.conditions);
            case originColumn: return QString::fromStdString(row.originTitle);
            case endsColumn: return QString::fromStdString(row.expiryTitle);
            default: return {};
        }
    }

    bool setData(const QModelIndex& index, const QVariant& value, int role) override {
        if (role != Qt::CheckStateRole || index.column() != enabledColumn || !rows_) return false;
        const RuleRow& row = (*rows_)[static_cast<std::size_t>(index.row())];
        toggle_(row.id, value.toInt() == Qt::Checked);
        return false;  // the row changes when the rule book says it did
    }

private:
    static constexpr int columnCount_ = ruleColumns;
    Toggle toggle_;
    const std::vector<RuleRow>* rows_ = nullptr;
};

RulesView::RulesView(std::shared_ptr<AgentRuleBook> rules, QWidget* parent, std::function<Date()> now)
    : QWidget(parent), rules_(std::move(rules)), now_(std::move(now)) {
    if (!now_) now_ = [] { return dateFrom(std::chrono::system_clock::now()); };
    setObjectName("RulesView");
    setAccessibleName("Rules");
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(24, 18, 24, 18);
    layout->setSpacing(10);

    auto* toolbar = new QHBoxLayout;
    toolbar->setSpacing(10);
    search_ = new QLineEdit(this);
    search_->setObjectName("RuleSearchField");
    search_->setAccessibleName("Search rules");
    search_->setPlaceholderText("Search rules: host, program, action\u2026");
    search_->setClearButtonEnabled(true);
    toolbar->addWidget(search_, 1);
    auto* sortLabel = new QFText("Sort by", F::qfCaption, N::qfText2, this);
    toolbar->addWidget(sortLabel);
    sortPicker_ = new QComboBox(this);
    sortPicker_->setObjectName("RuleSortPicker");
    sortPicker_->setAccessibleName("Sort rules by");
    sortLabel->setBuddy(sortPicker_);
    for (auto order : {RuleSortOrder::snapshot, RuleSortOrder::name, RuleSortOrder::action, RuleSortOrder::priority})
        sortPicker_->addItem(q(VM::sortTitle(order)), static_cast<int>(order));
    toolbar->addWidget(sortPicker_);
    layout->addLayout(toolbar);

    countText_ = new QFText({}, F::qfCaption, N::qfText2, this);
    countText_->setObjectName("RuleCountText");
    layout->addWidget(countText_);

    table_ = new QTableView(this);
    table_->setObjectName("RulesTable");
    table_->setAccessibleName("Rules");
    model_ = new RulesTableModel([this](const Uuid& id, bool on) {
        rules_->setEnabled(id, on, [this](auto result) { reportResult(result); });
    }, table_);
    table_->setModel(model_);
    table_->setSelectionBehavior(QAbstractItemView::SelectRows);
    table_->setSelectionMode(QAbstractItemView::SingleSelection);
    table_->setAlternatingRowColors(true);
    table_->setShowGrid(false);
    table_->setWordWrap(false);
    table_->verticalHeader()->hide();
    table_->verticalHeader()->setDefaultSectionSize(26);
    table_->horizontalHeader()->setStretchLastSection(false);
    table_->horizontalHeader()->setSectionResizeMode(QHeaderView::Interactive);
    table_->horizontalHeader()->setSectionResizeMode(conditionsColumn, QHeaderView::Stretch);
    for (auto [column, width] : {std::pair{enabledColumn, 40}, std::pair{nameColumn, 250}, std::pair{actionColumn, 64},
                                 std::pair{scopeColumn, 70}, std::pair{originColumn, 70}, std::pair{endsColumn, 90}})
        table_->setColumnWidth(column, width);
    layout->addWidget(table_, 1);

    // The chosen rule.
    details_ = new QFCard(this);
    details_->setObjectName("RuleDetails");
    details_->setAccessibleName("Chosen rule");
    auto* card = static_cast<QFCard*>(details_)->contentLayout();
    card->setSpacing(8);
    detailTitle_ = new QFText({}, F::qfHeading3, N::qfText1, details_);
    detailTitle_->setObjectName("RuleDetailTitle");
    detailTitle_->setTextInteractionFlags(Qt::TextSelectableByMouse);
    card->addWidget(detailTitle_);
    detailConditions_ = new QFText({}, F::qfCaptionMono, N::qfText2, details_);
    detailConditions_->setObjectName("RuleDetailConditions");
    detailConditions_->setWordWrap(true);
    detailConditions_->setTextInteractionFlags(Qt::TextSelectableByMouse);
    card->addWidget(detailConditions_);
    auto* controls = new QHBoxLayout;
    controls->setSpacing(12);
    enabledSwitch_ = new QCheckBox("Enabled", details_);
    enabledSwitch_->setObjectName("RuleEnabledSwitch");
    enabledSwitch_->setAccessibleName("Rule enabled");
    controls->addWidget(enabledSwitch_);
    auto* actionLabel = new QFText("Action", F::qfCaption, N::qfText2, details_);
    controls->addWidget(actionLabel);
    actionPicker_ = new QComboBox(details_);
    actionPicker_->setObjectName("RuleActionPicker");
    actionPicker_->setAccessibleName("Rule action");
    actionLabel->setBuddy(actionPicker_);
    for (auto action : allCases<RuleAction>()) actionPicker_->addItem(q(VM::actionTitle(action)), static_cast<int>(action));
    controls->addWidget(actionPicker_);
    auto* endsLabel = new QFText("Ends", F::qfCaption, N::qfText2, details_);
    controls->addWidget(endsLabel);
    expiryPicker_ = new QComboBox(details_);
    expiryPicker_->setObjectName("RuleExpiryPicker");
    expiryPicker_->setAccessibleName("Rule ends");
    endsLabel->setBuddy(expiryPicker_);
    controls->addWidget(expiryPicker_);
    controls->addStretch(1);
    deleteButton_ = new QFGhostButton("Delete", details_);
    deleteButton_->setObjectName("RuleDeleteButton");
    deleteButton_->setAccessibleName("Delete rule");
    deleteButton_->setSymbol("xmark.circle.fill");
    deleteButton_->setToolTip("Delete the rule (Delete); Undo brings it back while this window is open");
    controls->addWidget(deleteButton_);
    card->addLayout(controls);
    layout->addWidget(details_);

    undoBar_ = new QWidget(this);
    undoBar_->setObjectName("RuleUndoBar");
    auto* undo = new QHBoxLayout(undoBar_);
    undo->setContentsMargins(0, 0, 0, 0);
    undoText_ = new QFText({}, F::qfCaption, N::qfText2, undoBar_);
    undoText_->setObjectName("RuleUndoText");
    undo->addWidget(undoText_, 1);
    undoButton_ = new QFAccentButton("&Undo", false, undoBar_);
    undoButton_->setObjectName("RuleUndoButton");
    undoButton_->setAccessibleName("Undo delete");
    undo->addWidget(undoButton_);
    layout->addWidget(undoBar_);
    undoBar_->hide();

    errorText_ = new QFText({}, F::qfCaption, N::qfRed, this);
    errorText_->setObjectName("RuleErrorText");
    errorText_->setWordWrap(true);
    errorText_->hide();
    layout->addWidget(errorText_);

    connect(search_, &QLineEdit::textChanged, this, [this] { refresh(); });
    connect(sortPicker_, &QComboBox::activated, this, [this] { refresh(); });
    connect(table_->selectionModel(), &QItemSelectionModel::selectionChanged, this, [this] { updateDetails(); });
    connect(enabledSwitch_, &QCheckBox::clicked, this, [this](bool on) {
        if (auto id = selectedRule()) rules_->setEnabled(*id, on, [this](auto result) { reportResult(result); });
    });
    connect(actionPicker_, &QComboBox::activated, this, [this](int index) {
        const auto action = static_cast<RuleAction>(actionPicker_->itemData(index).toInt());
        if (auto id = selectedRule()) rules_->setAction(*id, action, [this](auto result) { reportResult(result); });
    });
    connect(expiryPicker_, &QComboBox::activated, this, [this](int index) {
        const auto choice = expiryPicker_->itemData(index);
        if (!choice.isValid()) return;  // the current end, shown as it is
        const auto seconds = choice.toLongLong();
        auto id = selectedRule();
        if (!id) return;
        rules_->setExpiry(*id, seconds > 0 ? std::optional<Date>(now_() + std::chrono::seconds(seconds)) : std::nullopt,
                          [this](auto result) { reportResult(result); });
    });
    connect(deleteButton_, &QAbstractButton::clicked, this, [this] { deleteSelected(); });
    connect(undoButton_, &QAbstractButton::clicked, this, [this] { undoDelete(); });
    auto* deleteKey = new QShortcut(QKeySequence::Delete, table_);
    deleteKey->setContext(Qt::WidgetShortcut);
    connect(deleteKey, &QShortcut::activated, this, [this] { deleteSelected(); });
    auto* undoKey = new QShortcut(QKeySequence::Undo, this);
    undoKey->setContext(Qt::WindowShortcut);
    connect(undoKey, &QShortcut::activated, this, [this] { undoDelete(); });

    subscription_ = rules_->state().subscribe([this](const auto&) { refresh(); });
    refresh();
}

RulesView::~RulesView() = default;

std::optional<Uuid> RulesView::selectedRule() const {
    const auto selected = table_->selectionModel()->selectedRows();
    if (selected.isEmpty()) return std::nullopt;
    const auto row = static_cast<std::size_t>(selected.front().row());
    if (row >= rows_.size()) return std::nullopt;
    return rows_[row].id;
}

void RulesView::selectRule(const Uuid& id) {
    for (std::size_t i = 0; i < rows_.size(); ++i)
        if (rows_[i].id == id) table_->selectRow(static_cast<int>(i));
}

void RulesView::refresh() {
    const auto keep = selectedRule();
    const auto& state = rules_->state().value();
    const auto order = static_cast<RuleSortOrder>(sortPicker_->currentData().toInt());
    const std::string search = search_->text().toStdString();
    rows_ = VM::rows(state, search, order, now_());
    {
        const QSignalBlocker block(table_->selectionModel());
        model_->setRows(&rows_);
        if (keep) selectRule(*keep);
    }
    countText_->setText(q(VM::countText(rows_.size(), state.rules.size(), search)));
    if (state.problem) {
        errorText_->setText(q(*state.problem));
        errorText_->show();
    }
    updateDetails();
}

void RulesView::updateDetails() {
    const auto id = selectedRule();
    const RuleRow* row = nullptr;
    for (const auto& candidate : rows_)
        if (id && candidate.id == *id) row = &candidate;
    for (QWidget* control : std::initializer_list<QWidget*>{enabledSwitch_, actionPicker_, expiryPicker_, deleteButton_})
        control->setEnabled(row != nullptr);
    detailConditions_->setStyle(row ? F::qfCaptionMono : F::qfCaption, N::qfText2);
    if (!row) {
        detailTitle_->setText("No rule chosen");
        detailConditions_->setText("Choose a rule in the list to switch it off, change its action, give it an end or "
                                   "delete it.");
        return;
    }
    detailTitle_->setText(q(row->name));
    detailConditions_->setText(q(row->conditions));
    enabledSwitch_->setChecked(row->enabled);
    actionPicker_->setCurrentIndex(actionPicker_->findData(static_cast<int>(row->action)));
    const QSignalBlocker block(expiryPicker_);
    expiryPicker_->clear();
    if (row->expiresAt) expiryPicker_->addItem(q("Ends " + row->expiryTitle), QVariant());
    for (const auto& choice : VM::expiryChoices())
        expiryPicker_->addItem(q(choice.duration ? std::string("In ") + std::string(choice.title) : std::string(choice.title)),
                               QVariant::fromValue<qlonglong>(choice.duration ? choice.duration->count() : 0));
    expiryPicker_->setCurrentIndex(0);
}

void RulesView::reportResult(const std::expected<void, std::string>& result) {
    errorText_->setVisible(!result);
    if (!result) errorText_->setText(q(result.error()));
}

void RulesView::deleteSelected() {
    const auto id = selectedRule();
    if (!id) return;
    const auto& state = rules_->state().value();
    const auto found = std::ranges::find_if(state.rules, [&](const Rule& rule) { return rule.id == *id; });
    if (found == state.rules.end()) return;
    Deleted deleted{*found, static_cast<std::size_t>(found - state.rules.begin()), std::nullopt};
    if (const auto end = state.expiries.find(*id); end != state.expiries.end()) deleted.expiresAt = end->second;
    rules_->remove(*id, [this, deleted](auto result) {
        reportResult(result);
        if (!result) return;
        deleted_.push_back(deleted);
        undoText_->setText(q(VM::deletedText(deleted.rule)));
        undoBar_->show();
    });
}

void RulesView::undoDelete() {
    if (deleted_.empty()) return;
    const Deleted last = deleted_.back();
    deleted_.pop_back();
    rules_->restore(last.rule, last.index, last.expiresAt, [this, id = last.rule.id](auto result) {
        reportResult(result);
        if (result) selectRule(id);
    });
    if (deleted_.empty()) {
        undoBar_->hide();
    } else {
        undoText_->setText(q(VM::deletedText(deleted_.back().rule)));
    }
}

}  // namespace quillfort::ui
