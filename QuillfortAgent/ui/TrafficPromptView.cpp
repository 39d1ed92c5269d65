#include "QuillfortAgent/ui/TrafficPromptView.hpp"

#include <QCheckBox>
#include <QComboBox>
#include <QGridLayout>
#include <QHBoxLayout>
#include <QKeySequence>
#include <QPainter>
#include <QScrollArea>
#include <QScrollBar>
#include <QShortcut>
#include <QVBoxLayout>

#include "QuillfortAgent/coordinator/AgentPromptCoordinator.hpp"
#include "QuillfortAgent/ui/QFComponents.hpp"
#include "QuillfortAgent/ui/QFSymbols.hpp"

namespace quillfort::ui {

namespace {

namespace VM = TrafficPromptViewModel;
using N = QFColorName;
using F = QFFontName;

QString q(const std::string& text) {
    return QString::fromStdString(text);
}

// Where the rule preview sits: a sunken, rounded box.
class SunkenBox final : public QWidget {
public:
    using QWidget::QWidget;

protected:
    void paintEvent(QPaintEvent*) override {
        QPainter painter(this);
        painter.setRenderHint(QPainter::Antialiasing);
        painter.setPen(Qt::NoPen);
        painter.setBrush(QFPalette::color(N::qfSunken));
        painter.drawRoundedRect(QRectF(rect()), 8, 8);
    }
};

// The amber warning symbol of the Signer Changed card.
class SymbolView final : public QWidget {
public:
    SymbolView(const char* symbol, N color, int side, QWidget* parent)
        : QWidget(parent), symbol_(symbol), color_(color) {
        setFixedSize(side, side);
    }

protected:
    void paintEvent(QPaintEvent*) override {
        QPainter painter(this);
        QFSymbols::paint(painter, symbol_, QRectF(rect()), QFPalette::color(color_));
    }

private:
    const char* symbol_;
    N color_;
};

void setTextIfChanged(QLabel* label, const QString& text) {
    if (label->text() != text) label->setText(text);
}

QFText* selectableValue(QWidget* parent, const QString& objectName) {
    auto* value = new QFText({}, F::qfCaptionMono, N::qfText1, parent);
    value->setObjectName(objectName);
    value->setWordWrap(true);
    value->setTextInteractionFlags(Qt::TextSelectableByMouse | Qt::TextSelectableByKeyboard);
    value->setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Preferred);
    return value;
}

QComboBox* facetPicker(QWidget* parent, const QString& objectName, const QString& accessibleName,
                       const QString& anyTitle) {
    auto* picker = new QComboBox(parent);
    picker->setObjectName(objectName);
    picker->setAccessibleName(accessibleName);
    picker->addItem(anyTitle, QString::fromUtf8(VM::anyTag.data(), static_cast<int>(VM::anyTag.size())));
    picker->addItem(QString(), QString::fromUtf8(VM::exactTag.data(), static_cast<int>(VM::exactTag.size())));
    return picker;
}

QCheckBox* facetSwitch(QWidget* parent, const QString& objectName, const QString& title) {
    auto* box = new QCheckBox(title, parent);
    box->setObjectName(objectName);
    box->setFont(QFPalette::font(F::qfCaption));
    return box;
}

}  // namespace

TrafficPromptView::TrafficPromptView(AgentPromptCoordinator& coordinator, QWidget* parent)
    : QWidget(parent), coordinator_(coordinator) {
    setObjectName("TrafficPromptView");
    setAccessibleName("Traffic prompt");
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->setSpacing(0);
    buildHeader(this);
    layout->addWidget(new QFSeparator(this));
    buildScrollColumn(this);
    buildFooter(this);
    installShortcuts();
}

void TrafficPromptView::buildHeader(QWidget* parent) {
    auto* header = new QWidget(parent);
    header->setObjectName("PromptHeader");
    auto* column = new QVBoxLayout(header);
    column->setContentsMargins(24, 20, 24, 16);
    column->setSpacing(6);

    auto* first = new QHBoxLayout;
    headerTitle_ = new QFText({}, F::qfHeading1, N::qfText1, header);
    headerTitle_->setObjectName("HeaderTitleLabel");
    QFont title = QFPalette::font(F::qfBodyMono);
    title.setPixelSize(22);
    title.setBold(true);
    headerTitle_->setFont(title);
    headerTitle_->setTextInteractionFlags(Qt::TextSelectableByMouse);
    pendingPill_ = new QFStatusPill({}, N::qfAmber, header);
    pendingPill_->setObjectName("PendingPill");
    first->addWidget(headerTitle_, 1);
    first->addWidget(pendingPill_);
    column->addLayout(first);

    auto* second = new QHBoxLayout;
    second->setSpacing(6);
    protoLabel_ = new QFText({}, F::qfCaption, N::qfText2, header);
    protoLabel_->setObjectName("HeaderProtocolLabel");
    directionLabel_ = new QFText({}, F::qfCaption, N::qfText2, header);
    processLabel_ = new QFText({}, F::qfCaption, N::qfText2, header);
    processLabel_->setObjectName("HeaderProcessLabel");
    rememberedDot_ = new QFText(QStringLiteral("\u00b7"), F::qfCaption, N::qfText3, header);
    rememberedLabel_ = new QFText({}, F::qfCaption, N::qfText2, header);
    rememberedLabel_->setObjectName("HeaderRememberedLabel");
    second->addWidget(protoLabel_);
    second->addWidget(new QFText(QStringLiteral("\u00b7"), F::qfCaption, N::qfText3, header));
    second->addWidget(directionLabel_);
    second->addWidget(new QFText(QStringLiteral("\u00b7"), F::qfCaption, N::qfText3, header));
    second->addWidget(processLabel_);
    second->addWidget(rememberedDot_);
    second->addWidget(rememberedLabel_);
    second->addStretch(1);
    column->addLayout(second);
    parent->layout()->addWidget(header);
}

void TrafficPromptView::buildScrollColumn(QWidget* parent) {
    scroll_ = new QScrollArea(parent);
    scroll_->setObjectName("PromptScrollArea");
    scroll_->setWidgetResizable(true);
    scroll_->setFrameShape(QFrame::NoFrame);
    scroll_->setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
    auto* column = new QWidget(scroll_);
    column->setObjectName("PromptColumn");
    auto* layout = new QVBoxLayout(column);
    layout->setContentsMargins(24, 18, 24, 18);
    layout->setSpacing(14);

    // Duration.
    auto* duration = new QFCard(column);
    duration->setObjectName("DurationCard");
    duration->setAccessibleName("Duration");
    duration->contentLayout()->addWidget(new QFText("Duration", F::qfHeading3, N::qfText1, duration));
    auto* chips = new QHBoxLayout;
    chips->setSpacing(8);
    for (const auto& choice : VM::durationChoices()) {
        const QString title = QString::fromUtf8(choice.title.data(), static_cast<int>(choice.title.size()));
        auto* chip = new QFSelectionChip(title, duration);
        chip->setObjectName("DurationChip" + title);
        chip->setAccessibleDescription("Duration");
        chip->setToolTip(QStringLiteral("%1 (%2)").arg(title).arg(durationChips_.size() + 1));
        const RuleScope scope = choice.scope;
        connect(chip, &QAbstractButton::clicked, this, [this, scope] { chooseDuration(scope); });
        chips->addWidget(chip);
        durationChips_.push_back(chip);
    }
    duration->contentLayout()->addLayout(chips);
    layout->addWidget(duration);

    // Process Details.
    detailsSection_ = new QFSection("Process Details", false, column);
    detailsSection_->setObjectName("ProcessDetailsSection");
    detailsSection_->header()->setObjectName("ProcessDetailsSectionHeader");
    auto* details = new QGridLayout;
    details->setHorizontalSpacing(14);
    details->setVerticalSpacing(8);
    details->setColumnStretch(1, 1);
    pathValue_ = selectableValue(detailsSection_, "ProcessPathValue");
    signerValue_ = selectableValue(detailsSection_, "ProcessSignerValue");
    tagsValue_ = selectableValue(detailsSection_, "ProcessTagsValue");
    ancestorsValue_ = selectableValue(detailsSection_, "ProcessAncestorsValue");
    int row = 0;
    for (auto [key, value] : {std::pair{"Path", pathValue_}, std::pair{"Signer", signerValue_},
                              std::pair{"Tags", tagsValue_}, std::pair{"Ancestors", ancestorsValue_}}) {
        auto* keyLabel = new QFText(key, F::qfCaption, N::qfText2, detailsSection_);
        keyLabel->setBuddy(value);
        details->addWidget(keyLabel, row, 0, Qt::AlignTop);
        details->addWidget(value, row, 1);
        ++row;
    }
    detailsSection_->contentLayout()->addLayout(details);
    layout->addWidget(detailsSection_);

    // Scope Options.
    scopeSection_ = new QFSection("Scope Options", false, column);
    scopeSection_->setObjectName("ScopeOptionsSection");
    scopeSection_->header()->setObjectName("ScopeOptionsSectionHeader");
    auto* pickers = new QGridLayout;
    pickers->setHorizontalSpacing(14);
    pickers->setVerticalSpacing(8);
    pickers->setColumnStretch(1, 1);
    hostPicker_ = new QComboBox(scopeSection_);
    hostPicker_->setObjectName("HostPicker");
    hostPicker_->setAccessibleName("Host");
    portPicker_ = facetPicker(scopeSection_, "PortPicker", "Port", "Any port");
    protocolPicker_ = facetPicker(scopeSection_, "ProtocolPicker", "Protocol", "Any protocol");
    row = 0;
    for (auto [key, picker] : {std::pair{"Host", hostPicker_}, std::pair{"Port", portPicker_},
                               std::pair{"Protocol", protocolPicker_}}) {
        auto* keyLabel = new QFText(key, F::qfCaption, N::qfText2, scopeSection_);
        keyLabel->setBuddy(picker);
        pickers->addWidget(keyLabel, row, 0);
        pickers->addWidget(picker, row, 1);
        ++row;
    }
    scopeSection_->contentLayout()->addLayout(pickers);
    auto* switches = new QHBoxLayout;
    switches->setSpacing(16);
    exactProcessSwitch_ = facetSwitch(scopeSection_, "ExactProcessSwitch", "Exact process");
    ancestorAppSwitch_ = facetSwitch(scopeSection_, "AncestorAppSwitch", "Ancestor app");
    processTagSwitch_ = facetSwitch(scopeSection_, "ProcessTagSwitch", "Process tag");
    for (auto* box : {exactProcessSwitch_, ancestorAppSwitch_, processTagSwitch_}) switches->addWidget(box);
    switches->addStretch(1);
    scopeSection_->contentLayout()->addLayout(switches);
    layout->addWidget(scopeSection_);

    connect(hostPicker_, &QComboBox::activated, this, [this](int index) {
        const auto id = hostPicker_->itemData(index).toString().toStdString();
        auto session = liveSession();
        if (!session) return;
        if (auto selection = VM::selectingHostScope(*session, id)) coordinator_.setRuleSelection(session->id(), *selection);
    });
    connect(portPicker_, &QComboBox::activated, this, [this](int index) {
        const bool exact = VM::facetIncluded(portPicker_->itemData(index).toString().toStdString());
        editSelection([exact](auto& selection) { selection.includePortExact = exact; });
    });
    connect(protocolPicker_, &QComboBox::activated, this, [this](int index) {
        const bool exact = VM::facetIncluded(protocolPicker_->itemData(index).toString().toStdString());
        editSelection([exact](auto& selection) { selection.includeProtocol = exact; });
    });
    connect(exactProcessSwitch_, &QCheckBox::clicked, this,
            [this](bool on) { editSelection([on](auto& selection) { selection.includeExactProcess = on; }); });
    connect(ancestorAppSwitch_, &QCheckBox::clicked, this,
            [this](bool on) { editSelection([on](auto& selection) { selection.includeAncestorApp = on; }); });
    connect(processTagSwitch_, &QCheckBox::clicked, this,
            [this](bool on) { editSelection([on](auto& selection) { selection.includeProcessTag = on; }); });

    // Signer Changed.
    signerCard_ = new QFCard(column);
    signerCard_->setObjectName("SignerChangedCard");
    signerCard_->setAccessibleName("Signer Changed");
    auto* signerTitle = new QHBoxLayout;
    signerTitle->setSpacing(8);
    signerTitle->addWidget(new SymbolView("exclamationmark.triangle.fill", N::qfAmber, 18, signerCard_));
    signerTitle->addWidget(new QFText("Signer Changed", F::qfHeading3, N::qfText1, signerCard_), 1);
    signerCard_->contentLayout()->addLayout(signerTitle);
    signerSummary_ = new QFText({}, F::qfCaption, N::qfText2, signerCard_);
    signerSummary_->setObjectName("SignerChangedSummary");
    signerSummary_->setWordWrap(true);
    signerCard_->contentLayout()->addWidget(signerSummary_);
    auto* signerChips = new QHBoxLayout;
    signerChips->setSpacing(8);
    reuseChip_ = new QFSelectionChip("Reuse Existing", signerCard_);
    reuseChip_->setObjectName("ReuseExistingChip");
    separateChip_ = new QFSelectionChip("Separate Rule", signerCard_);
    separateChip_->setObjectName("SeparateRuleChip");
    for (auto [chip, reuse] : {std::pair{reuseChip_, true}, std::pair{separateChip_, false}}) {
        chip->setToolTip("Not used for a one-time answer, which writes no rule");
        connect(chip, &QAbstractButton::clicked, this, [this, reuse = reuse] {
            if (auto session = liveSession()) coordinator_.setReuseExistingSignerRule(session->id(), reuse);
        });
        signerChips->addWidget(chip);
    }
    signerCard_->contentLayout()->addLayout(signerChips);
    layout->addWidget(signerCard_);

    // Rule preview.
    auto* previewTitle = new QFText("RULE PREVIEW", F::qfMicro, N::qfText3, column);
    previewTitle->setObjectName("RulePreviewTitle");
    QFont micro = QFPalette::font(F::qfMicro);
    micro.setLetterSpacing(QFont::AbsoluteSpacing, 1.2);
    previewTitle->setFont(micro);
    layout->addWidget(previewTitle);
    auto* previewBox = new SunkenBox(column);
    auto* previewLayout = new QVBoxLayout(previewBox);
    previewLayout->setContentsMargins(12, 10, 12, 10);
    previewText_ = new QFText({}, F::qfCaptionMono, N::qfText1, previewBox);
    previewText_->setObjectName("RulePreviewText");
    previewText_->setAccessibleDescription("Rule preview");
    previewText_->setWordWrap(true);
    previewText_->setTextInteractionFlags(Qt::TextSelectableByMouse | Qt::TextSelectableByKeyboard);
    previewLayout->addWidget(previewText_);
    layout->addWidget(previewBox);

    // Room for the line naming the other prompts one answer also settles.
    alsoAnswersLabel_ = new QFText({}, F::qfCaption, N::qfText2, column);
    alsoAnswersLabel_->setObjectName("AlsoAnswersLabel");
    alsoAnswersLabel_->setWordWrap(true);
    alsoAnswersLabel_->hide();
    layout->addWidget(alsoAnswersLabel_);

    layout->addStretch(1);
    scroll_->setWidget(column);
    parent->layout()->addWidget(scroll_);
}

void TrafficPromptView::buildFooter(QWidget* parent) {
    auto* footer = new QWidget(parent);
    footer->setObjectName("PromptFooter");
    auto* row = new QHBoxLayout(footer);
    row->setContentsMargins(24, 12, 24, 18);
    row->setSpacing(10);
    cancelButton_ = new QFGhostButton("Cancel", footer);
    cancelButton_->setObjectName("CancelButton");
    cancelButton_->setToolTip("Block this connection once (Esc)");
    cancelAllButton_ = new QFGhostButton("Cancel All", footer);
    cancelAllButton_->setObjectName("CancelAllButton");
    cancelAllButton_->setToolTip("Block every queued connection once");
    blockButton_ = new QFAccentButton({}, true, footer);
    blockButton_->setObjectName("BlockButton");
    blockButton_->setSymbol("xmark.circle.fill");
    blockButton_->setToolTip("Block with the chosen duration (Alt+B)");
    allowButton_ = new QFAccentButton({}, false, footer);
    allowButton_->setObjectName("AllowButton");
    allowButton_->setSymbol("checkmark.circle.fill");
    allowButton_->setToolTip("Allow with the chosen duration (Return, Alt+A)");
    row->addWidget(cancelButton_);
    row->addWidget(cancelAllButton_);
    row->addStretch(1);
    row->addWidget(blockButton_);
    row->addWidget(allowButton_);
    parent->layout()->addWidget(footer);

    connect(cancelButton_, &QAbstractButton::clicked, this, [this] { cancel(); });
    connect(cancelAllButton_, &QAbstractButton::clicked, this, [this] { cancelAll(); });
    connect(blockButton_, &QAbstractButton::clicked, this, [this] { answer(RuleAction::drop); });
    connect(allowButton_, &QAbstractButton::clicked, this, [this] { answer(RuleAction::allow); });
}

void TrafficPromptView::installShortcuts() {
    auto shortcut = [this](const QKeySequence& keys, std::function<void()> action) {
        auto* s = new QShortcut(keys, this);
        s->setContext(Qt::WindowShortcut);
        connect(s, &QShortcut::activated, this, [this, action = std::move(action)] {
            if (!inputGuarded()) action();
        });
    };
    shortcut(QKeySequence(Qt::Key_Return), [this] { answer(RuleAction::allow); });
    shortcut(QKeySequence(Qt::Key_Enter), [this] { answer(RuleAction::allow); });
    shortcut(QKeySequence(Qt::Key_Escape), [this] { cancel(); });
    for (std::size_t i = 0; i < VM::durationChoices().size(); ++i) {
        const RuleScope scope = VM::durationChoices()[i].scope;
        shortcut(QKeySequence(Qt::Key_1 + static_cast<int>(i)), [this, scope] { chooseDuration(scope); });
    }
}

void TrafficPromptView::bind(const AgentPromptSession& session, std::size_t queuedCount) {
    const bool headChanged = boundID_ != session.id();
    boundID_ = session.id();
    queuedCount_ = queuedCount;
    if (headChanged) {
        armInputGuard();
        scroll_->verticalScrollBar()->setValue(0);
    }
    const TrafficPromptTexts texts = VM::derivedTexts(session);

    setTextIfChanged(headerTitle_, q(texts.headerTitle));
    const auto pill = VM::pendingPillText(queuedCount);
    if (pill) setTextIfChanged(pendingPill_, q(*pill));
    pendingPill_->setVisible(pill.has_value());
    setTextIfChanged(protoLabel_, q(texts.proto));
    setTextIfChanged(directionLabel_, q(texts.directionTitle));
    setTextIfChanged(processLabel_, q(texts.processTitle));
    rememberedDot_->setVisible(texts.rememberedTitle.has_value());
    rememberedLabel_->setVisible(texts.rememberedTitle.has_value());
    if (texts.rememberedTitle) setTextIfChanged(rememberedLabel_, q(*texts.rememberedTitle));

    const RuleScope scope = AgentPromptDecisionPresets::scope(session.selectedPreset);
    for (std::size_t i = 0; i < durationChips_.size(); ++i) {
        durationChips_[i]->setSelected(VM::durationChoices()[i].scope == scope);
    }

    setTextIfChanged(pathValue_, q(texts.processPath));
    setTextIfChanged(signerValue_, q(texts.signerTitle));
    setTextIfChanged(tagsValue_, q(texts.tagsTitle));
    setTextIfChanged(ancestorsValue_, q(texts.ancestorSummary));

    if (texts.hostScopeOptions != shownHostOptions_) {
        const QSignalBlocker block(hostPicker_);
        hostPicker_->clear();
        for (const auto& option : texts.hostScopeOptions) hostPicker_->addItem(q(option.title), q(option.id));
        shownHostOptions_ = texts.hostScopeOptions;
    }
    {
        const QSignalBlocker block(hostPicker_);
        hostPicker_->setCurrentIndex(hostPicker_->findData(q(texts.selectedHostScopeID)));
    }
    const auto& selection = session.ruleSelection;
    for (auto [picker, included, exactTitle] : {std::tuple{portPicker_, selection.includePortExact, texts.port},
                                                std::tuple{protocolPicker_, selection.includeProtocol, texts.proto}}) {
        const QSignalBlocker block(picker);
        if (picker->itemText(1) != q(exactTitle)) picker->setItemText(1, q(exactTitle));
        picker->setCurrentIndex(included ? 1 : 0);
    }
    exactProcessSwitch_->setChecked(selection.includeExactProcess);
    ancestorAppSwitch_->setChecked(selection.includeAncestorApp);
    processTagSwitch_->setChecked(selection.includeProcessTag);

    signerCard_->setVisible(texts.signerChangeSummary.has_value());
    if (texts.signerChangeSummary) setTextIfChanged(signerSummary_, q(*texts.signerChangeSummary));
    reuseChip_->setSelected(session.reuseExistingSignerRule);
    separateChip_->setSelected(!session.reuseExistingSignerRule);
    reuseChip_->setEnabled(texts.signerChoiceEnabled);
    separateChip_->setEnabled(texts.signerChoiceEnabled);

    setTextIfChanged(previewText_, q(texts.previewText));
    const auto alsoAnswers = VM::alsoAnswersText(coordinator_.alsoAnsweredCount(session.id()));
    alsoAnswersLabel_->setVisible(alsoAnswers.has_value());
    if (alsoAnswers) setTextIfChanged(alsoAnswersLabel_, q(*alsoAnswers));

    cancelAllButton_->setVisible(VM::showsCancelAll(queuedCount));
    // The mnemonics give Alt+B and Alt+A, underlined in the buttons.
    const QString block = "&" + q(texts.blockTitle);
    const QString allow = "&" + q(texts.allowTitle);
    if (blockButton_->text() != block) {
        blockButton_->setText(block);
        blockButton_->updateGeometry();
    }
    if (allowButton_->text() != allow) {
        allowButton_->setText(allow);
        allowButton_->updateGeometry();
    }
}

void TrafficPromptView::armInputGuard() {
    guardTimer_.start();
}

bool TrafficPromptView::inputGuarded() const {
    return guardTimer_.isValid() && guardTimer_.elapsed() < guardInterval_.count();
}

std::optional<AgentPromptSession> TrafficPromptView::liveSession() const {
    if (!boundID_) return std::nullopt;
    const auto& queue = coordinator_.activePrompts().value();
    for (const auto& session : queue) {
        if (session.id() == *boundID_) return session;
    }
    return std::nullopt;
}

void TrafficPromptView::chooseDuration(RuleScope scope) {
    if (auto session = liveSession()) {
        coordinator_.setSelectedPreset(session->id(), VM::withDuration(session->selectedPreset, scope));
    }
}

void TrafficPromptView::answer(RuleAction action) {
    if (inputGuarded()) return;
    auto session = liveSession();
    if (!session) return;
    const auto preset = VM::answering(session->selectedPreset, action);
    coordinator_.setSelectedPreset(session->id(), preset);
    coordinator_.resolvePrompt(session->id(), preset);
}

void TrafficPromptView::cancel() {
    if (inputGuarded()) return;
    if (auto session = liveSession()) coordinator_.cancelPrompt(session->id());
}

void TrafficPromptView::cancelAll() {
    if (inputGuarded()) return;
    coordinator_.cancelAllPrompts();
}

void TrafficPromptView::editSelection(const std::function<void(FlowPromptRuleSelection&)>& edit) {
    auto session = liveSession();
    if (!session) return;
    FlowPromptRuleSelection selection = session->ruleSelection;
    edit(selection);
    coordinator_.setRuleSelection(session->id(), selection);
}

}  // namespace quillfort::ui
