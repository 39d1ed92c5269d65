#include "QuillfortAgent/ui/AgentStatusWindow.hpp"

#include <QHBoxLayout>
#include <QKeySequence>
#include <QShortcut>
#include <QStackedWidget>
#include <QVBoxLayout>

#include "QuillfortAgent/ui/AgentStatusView.hpp"
#include "QuillfortAgent/ui/NetworkView.hpp"
#include "QuillfortAgent/ui/QFComponents.hpp"
#include "QuillfortAgent/ui/RulesView.hpp"

namespace quillfort::ui {

AgentStatusWindow::AgentStatusWindow(QuillfortFeatureFlags featureFlags,
                                     std::shared_ptr<AgentPromptCoordinator> coordinator,
                                     std::shared_ptr<AgentRuleBook> rules, std::shared_ptr<AgentFlowMonitor> flows,
                                     QWidget* parent)
    : QWidget(parent) {
    setObjectName("AgentStatusWindow");
    setWindowTitle("Quillfort Agent");
    setAccessibleName("Quillfort Agent");
    setMinimumSize(620, 580);
    QFPalette::styleWindow(*this);

    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->setSpacing(0);
    auto* tabRow = new QWidget(this);
    tabRow->setObjectName("StatusWindowTabs");
    tabRow->setAccessibleName("Views");
    auto* tabs = new QHBoxLayout(tabRow);
    tabs->setContentsMargins(24, 14, 24, 10);
    tabs->setSpacing(8);
    const char* titles[] = {"&Status", "&Rules", "&Network"};
    const char* names[] = {"StatusTabStatus", "StatusTabRules", "StatusTabNetwork"};
    for (int i = 0; i < 3; ++i) {
        tabs_[i] = new QFSelectionChip(titles[i], tabRow);
        tabs_[i]->setObjectName(names[i]);
        tabs_[i]->setAccessibleDescription("View");
        tabs_[i]->setToolTip(QStringLiteral("Ctrl+%1").arg(i + 1));
        tabs_[i]->setSizePolicy(QSizePolicy::Fixed, QSizePolicy::Fixed);
        tabs_[i]->setMinimumWidth(110);
        tabs->addWidget(tabs_[i]);
        const auto page = static_cast<Page>(i);
        connect(tabs_[i], &QAbstractButton::clicked, this, [this, page] { showPage(page); });
        auto* key = new QShortcut(QKeySequence(Qt::CTRL | static_cast<Qt::Key>(Qt::Key_1 + i)), this);
        connect(key, &QShortcut::activated, this, [this, page] { showPage(page); });
    }
    tabs->addStretch(1);
    layout->addWidget(tabRow);
    layout->addWidget(new QFSeparator(this));

    pages_ = new QStackedWidget(this);
    statusView_ = new AgentStatusView(std::move(featureFlags), coordinator, pages_);
    rulesView_ = new RulesView(rules, pages_);
    networkView_ = new NetworkView(std::move(flows), std::move(rules), std::move(coordinator), pages_);
    pages_->addWidget(statusView_);
    pages_->addWidget(rulesView_);
    pages_->addWidget(networkView_);
    layout->addWidget(pages_, 1);
    showPage(Page::status);
}

void AgentStatusWindow::showPage(Page page) {
    page_ = page;
    const int index = static_cast<int>(page);
    pages_->setCurrentIndex(index);
    for (int i = 0; i < 3; ++i) tabs_[i]->setSelected(i == index);
}

}  // namespace quillfort::ui
