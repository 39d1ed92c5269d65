// The status window's "Rules" view: every rule of the snapshot in a table that
// a search narrows and a picker orders, and for the chosen rule its switch,
// action, end and delete (with undo while the view is open). It follows the
// rule book, so a change made elsewhere shows at once; every change goes
// through the rule book, never straight to the file.
#pragma once

#include <memory>
#include <optional>
#include <vector>

#include <QWidget>

#include "QuillfortAgent/coordinator/Observable.hpp"
#include "QuillfortAgent/coordinator/RulesViewModel.hpp"
#include "QuillfortAgent/host/AgentRuleBook.hpp"

class QCheckBox;
class QComboBox;
class QLineEdit;
class QTableView;

namespace quillfort::ui {

class QFAccentButton;
class QFGhostButton;
class QFText;
class RulesTableModel;

class RulesView : public QWidget {
public:
    // `now` gives the time the ends are shown against (the system clock by default).
    explicit RulesView(std::shared_ptr<AgentRuleBook> rules, QWidget* parent = nullptr,
                       std::function<Date()> now = {});
    ~RulesView() override;

    // The rule chosen in the table, if any.
    [[nodiscard]] std::optional<Uuid> selectedRule() const;
    void selectRule(const Uuid& id);

private:
    void refresh();
    void updateDetails();
    void reportResult(const std::expected<void, std::string>& result);
    void deleteSelected();
    void undoDelete();

    struct Deleted {
        Rule rule;
        std::size_t index;
        std::optional<Date> expiresAt;
    };

    std::shared_ptr<AgentRuleBook> rules_;
    std::function<Date()> now_;
    Subscription subscription_;
    std::vector<RuleRow> rows_;
    std::vector<Deleted> deleted_;  // newest last; undone newest first

    QLineEdit* search_ = nullptr;
    QComboBox* sortPicker_ = nullptr;
    QFText* countText_ = nullptr;
    QTableView* table_ = nullptr;
    RulesTableModel* model_ = nullptr;
    QWidget* details_ = nullptr;
    QFText* detailTitle_ = nullptr;
    QFText* detailConditions_ = nullptr;
    QCheckBox* enabledSwitch_ = nullptr;
    QComboBox* actionPicker_ = nullptr;
    QComboBox* expiryPicker_ = nullptr;
    QFGhostButton* deleteButton_ = nullptr;
    QWidget* undoBar_ = nullptr;
    QFText* undoText_ = nullptr;
    QFAccentButton* undoButton_ = nullptr;
    QFText* errorText_ = nullptr;
};

}  // namespace quillfort::ui
