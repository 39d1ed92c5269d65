#include "QuillfortAgent/ui/AgentStatusView.hpp"

#include <algorithm>
#include <unordered_set>

#include <QComboBox>
#include <QHBoxLayout>
#include <QPainter>
#include <QScrollArea>
#include <QTimer>
#include <QVBoxLayout>

#include "QuillfortAgent/coordinator/AgentPromptCoordinator.hpp"
#include "QuillfortAgent/coordinator/TrafficPromptViewModel.hpp"
#include "QuillfortAgent/ui/IdleView.hpp"
#include "QuillfortAgent/ui/QFComponents.hpp"
#include "QuillfortAgent/ui/QFSymbols.hpp"

namespace quillfort::ui {

namespace {

using N = QFColorName;
using F = QFFontName;

QString q(std::string_view text) {
    return QString::fromUtf8(text.data(), static_cast<int>(text.size()));
}

class HeaderSymbol final : public QWidget {
public:
    explicit HeaderSymbol(QWidget* parent) : QWidget(parent) { setFixedSize(26, 26); }
    void setSymbol(std::string symbol) {
        symbol_ = std::move(symbol);
        update();
    }

protected:
    void paintEvent(QPaintEvent*) override {
        QPainter painter(this);
        QFSymbols::paint(painter, symbol_, QRectF(2, 2, 22, 22), QFPalette::color(N::qfAccent));
    }

private:
    std::string symbol_ = "shield";
};

void clear(QVBoxLayout* layout) {
    while (auto* item = layout->takeAt(0)) {
        delete item->widget();
        delete item;
    }
}

}  // namespace

AgentStatusView::AgentStatusView(QuillfortFeatureFlags featureFlags,
                                 std::shared_ptr<AgentPromptCoordinator> coordinator, QWidget* parent)
    : QWidget(parent), featureFlags_(std::move(featureFlags)), coordinator_(std::move(coordinator)) {
    setObjectName("AgentStatusView");
    setWindowTitle("Quillfort Agent");
    setAccessibleName("Quillfort Agent");
    setMinimumSize(520, 580);
    QFPalette::styleWindow(*this);

    auto* outer = new QVBoxLayout(this);
    outer->setContentsMargins(0, 0, 0, 0);
    auto* scroll = new QScrollArea(this);
    scroll->setWidgetResizable(true);
    scroll->setFrameShape(QFrame::NoFrame);
    outer->addWidget(scroll);
    auto* column = new QWidget(scroll);
    auto* layout = new QVBoxLayout(column);
    layout->setContentsMargins(24, 22, 24, 22);
    layout->setSpacing(12);

    // Header.
    auto* header = new QHBoxLayout;
    header->setSpacing(10);
    auto* symbol = new HeaderSymbol(column);
    symbol->setObjectName("StatusSymbol");
    header->addWidget(symbol, 0, Qt::AlignTop);
    auto* titles = new QVBoxLayout;
    titles->setSpacing(2);
    titles->addWidget(new QFText("Quillfort Agent", F::qfHeading2, N::qfText1, column));
    titles->addWidget(new QFText("Login-item helper for traffic decisions", F::qfCaption, N::qfText2, column));
    summary_ = new QFText({}, F::qfCaption, N::qfText1, column);
    summary_->setObjectName("StatusSummary");
    titles->addWidget(summary_);
    auto* stubs = new QFText(q(AgentStatusViewModel::stubsText(featureFlags_.stubExtensionsEnabled)),
                             F::qfCaptionMono, N::qfText3, column);
    stubs->setObjectName("StatusStubs");
    titles->addWidget(stubs);
    header->addLayout(titles, 1);
    layout->addLayout(header);
    layout->addWidget(new QFSeparator(column));

    // Prompt Bridge.
    layout->addWidget(new QFText("Prompt Bridge", F::qfHeading3, N::qfText1, column));
    auto* listener = new QHBoxLayout;
    listener->addWidget(new QFText("Listener", F::qfCaption, N::qfText2, column));
    listenerValue_ = new QFText({}, F::qfCaption, N::qfText1, column);
    listenerValue_->setObjectName("StatusListenerValue");
    listenerValue_->setWordWrap(true);
    listener->addWidget(listenerValue_, 1);
    layout->addLayout(listener);
    auto* manifest = new QHBoxLayout;
    manifest->addWidget(new QFText("Manifest", F::qfCaption, N::qfText2, column));
    manifestValue_ = new QFText({}, F::qfCaptionMono, N::qfText1, column);
    manifestValue_->setObjectName("StatusManifestValue");
    manifestValue_->setWordWrap(true);
    manifestValue_->setTextInteractionFlags(Qt::TextSelectableByMouse);
    manifest->addWidget(manifestValue_, 1);
    layout->addLayout(manifest);
    layout->addWidget(new QFSeparator(column));

    // Active Prompts.
    activeTitle_ = new QFText({}, F::qfHeading3, N::qfText1, column);
    activeTitle_->setObjectName("StatusActiveTitle");
    layout->addWidget(activeTitle_);
    promptRows_ = new QVBoxLayout;
    promptRows_->setSpacing(8);
    layout->addLayout(promptRows_);
    emptyQueueText_ = new QFText(q(AgentStatusViewModel::emptyQueueText), F::qfCaption, N::qfText3, column);
    emptyQueueText_->setObjectName("StatusEmptyQueue");
    layout->addWidget(emptyQueueText_);
    layout->addWidget(new QFSeparator(column));

    // Recent Responses.
    layout->addWidget(new QFText("Recent Responses", F::qfHeading3, N::qfText1, column));
    recentRows_ = new QVBoxLayout;
    recentRows_->setSpacing(6);
    layout->addLayout(recentRows_);
    layout->addStretch(1);
    scroll->setWidget(column);

    auto schedule = [this](const auto&) { scheduleRefresh(); };
    subscriptions_.push_back(coordinator_->activePrompts().subscribe(schedule));
    subscriptions_.push_back(coordinator_->recentResponses().subscribe(schedule));
    subscriptions_.push_back(coordinator_->listenerStatus().subscribe(schedule));
    subscriptions_.push_back(coordinator_->endpointPath().subscribe(schedule));
    subscriptions_.push_back(coordinator_->activePrompts().subscribe(
        [symbol, this](const auto&) { symbol->setSymbol(coordinator_->menuBarSymbol()); }));
    refresh();
}

void AgentStatusView::showEvent(QShowEvent* event) {
    refresh();
    QWidget::showEvent(event);
}

void AgentStatusView::scheduleRefresh() {
    // Changes come in bursts (a thousand queued prompts); redraw once per burst,
    // and not at all while the window is closed.
    if (refreshPending_ || !isVisible()) return;
    refreshPending_ = true;
    QTimer::singleShot(0, this, [this] {
        refreshPending_ = false;
        refresh();
    });
}

void AgentStatusView::refresh() {
    summary_->setText(QString::fromStdString(coordinator_->statusSummary()));
    listenerValue_->setText(QString::fromStdString(coordinator_->listenerStatus().value()));
    manifestValue_->setText(QString::fromStdString(coordinator_->endpointPath().value()));
    activeTitle_->setText(
        QString::fromStdString(AgentStatusViewModel::activePromptsTitle(coordinator_->activePrompts().value().size())));
    updatePromptRows();
    rebuildRecentRows();
}

void AgentStatusView::updatePromptRows() {
    const auto& queue = coordinator_->activePrompts().value();
    std::unordered_set<Uuid> queued;
    for (const auto& session : queue) queued.insert(session.id());
    std::erase_if(shownRows_, [&](const PromptRow& row) {
        if (queued.contains(row.id)) return false;
        row.widget->hide();
        row.widget->deleteLater();  // a row's own Send button may be on the stack
        return true;
    });
    for (std::size_t i = 0; i < queue.size(); ++i) {
        const auto& session = queue[i];
        const auto found = std::find_if(shownRows_.begin() + static_cast<std::ptrdiff_t>(i), shownRows_.end(),
                                        [&](const PromptRow& row) { return row.id == session.id(); });
        QWidget* widget = nullptr;
        if (found == shownRows_.end()) {
            widget = makePromptRow(session);
            shownRows_.insert(shownRows_.begin() + static_cast<std::ptrdiff_t>(i), {session.id(), widget});
            promptRows_->insertWidget(static_cast<int>(i), widget);
        } else {
            widget = found->widget;
            if (found != shownRows_.begin() + static_cast<std::ptrdiff_t>(i)) {
                std::rotate(shownRows_.begin() + static_cast<std::ptrdiff_t>(i), found, found + 1);
                promptRows_->insertWidget(static_cast<int>(i), widget);
            }
        }
        widget->setObjectName(QStringLiteral("StatusPromptRow%1").arg(i));
        auto* picker = widget->findChild<QComboBox*>("StatusPresetPicker");
        const int index = picker->findData(static_cast<int>(session.selectedPreset));
        if (picker->currentIndex() != index) picker->setCurrentIndex(index);
    }
    emptyQueueText_->setVisible(queue.empty());
}

QWidget* AgentStatusView::makePromptRow(const AgentPromptSession& session) {
    auto* row = new QWidget(promptRows_->parentWidget());
    auto* layout = new QHBoxLayout(row);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->setSpacing(10);
    auto* text = new QVBoxLayout;
    text->setSpacing(1);
    text->addWidget(
        new QFText(QString::fromStdString(AgentStatusViewModel::rowDestination(session)), F::qfBodyMono, N::qfText1, row));
    text->addWidget(
        new QFText(QString::fromStdString(AgentStatusViewModel::rowProcess(session)), F::qfCaption, N::qfText2, row));
    layout->addLayout(text, 1);
    auto* picker = new QComboBox(row);
    picker->setObjectName("StatusPresetPicker");
    picker->setAccessibleName("Decision");
    for (const auto& [preset, raw] : EnumTraits<AgentPromptDecisionPreset>::entries) {
        picker->addItem(q(AgentPromptDecisionPresets::title(preset)), static_cast<int>(preset));
    }
    const Uuid id = session.id();
    connect(picker, &QComboBox::activated, this, [this, picker, id](int i) {
        coordinator_->setSelectedPreset(id, static_cast<AgentPromptDecisionPreset>(picker->itemData(i).toInt()));
    });
    auto* send = new QFAccentButton("Send", false, row);
    send->setObjectName("StatusSendButton");
    send->setAccessibleDescription(QString::fromStdString(AgentStatusViewModel::rowDestination(session)));
    connect(send, &QAbstractButton::clicked, this, [this, id] { coordinator_->resolvePrompt(id); });
    layout->addWidget(picker);
    layout->addWidget(send);
    return row;
}

void AgentStatusView::rebuildRecentRows() {
    const auto& records = coordinator_->recentResponses().value();
    if (records == shownRecent_ && recentRows_->count() > 0) return;
    shownRecent_ = records;
    clear(recentRows_);
    auto* parent = recentRows_->parentWidget();
    if (records.empty()) {
        auto* none = new QFText(q(AgentStatusViewModel::noResponsesText), F::qfCaption, N::qfText3, parent);
        none->setObjectName("StatusNoResponses");
        recentRows_->addWidget(none);
        return;
    }
    for (const auto& record : records) recentRows_->addWidget(makeResolvedRow(record, parent));
}

}  // namespace quillfort::ui
