#include "QuillfortAgent/ui/IdleView.hpp"

#include <QHBoxLayout>
#include <QPainter>
#include <QVBoxLayout>
#include <QVariantAnimation>

#include "QuillfortAgent/coordinator/TrafficPromptViewModel.hpp"
#include "QuillfortAgent/ui/QFComponents.hpp"
#include "QuillfortAgent/ui/QFSymbols.hpp"

namespace quillfort::ui {

namespace {

using N = QFColorName;
using F = QFFontName;

// The accent circle behind the shield; it breathes slowly while the view is shown.
class PulsingShield final : public QWidget {
public:
    explicit PulsingShield(QWidget* parent) : QWidget(parent), animation_(new QVariantAnimation(this)) {
        setFixedSize(124, 124);
        setAccessibleName("Waiting");
        animation_->setStartValue(0.0);
        animation_->setKeyValueAt(0.5, 1.0);
        animation_->setEndValue(0.0);
        animation_->setDuration(2400);
        animation_->setLoopCount(-1);
        animation_->setEasingCurve(QEasingCurve::InOutSine);
        connect(animation_, &QVariantAnimation::valueChanged, this, [this] { update(); });
    }

protected:
    void showEvent(QShowEvent*) override { animation_->start(); }
    void hideEvent(QHideEvent*) override { animation_->stop(); }
    void paintEvent(QPaintEvent*) override {
        QPainter painter(this);
        painter.setRenderHint(QPainter::Antialiasing);
        const qreal pulse = animation_->currentValue().toReal();
        const QPointF centre = QRectF(rect()).center();
        QColor halo = QFPalette::color(N::qfAccent);
        halo.setAlphaF(static_cast<float>(0.18 * (1.0 - pulse)));
        painter.setPen(Qt::NoPen);
        painter.setBrush(halo);
        const qreal haloRadius = 50 + 12 * pulse;
        painter.drawEllipse(centre, haloRadius, haloRadius);
        painter.setBrush(QFPalette::color(N::qfAccent));
        painter.drawEllipse(centre, 50, 50);
        QFSymbols::paint(painter, "shield.checkered", QRectF(centre.x() - 22, centre.y() - 22, 44, 44), Qt::white);
    }

private:
    QVariantAnimation* animation_;
};

QHBoxLayout* bridgeLabel(const QString& title, QFText* value, QWidget* parent) {
    auto* row = new QHBoxLayout;
    row->setSpacing(6);
    row->addStretch(1);
    row->addWidget(new QFText(title + ":", F::qfMicro, N::qfText3, parent));
    row->addWidget(value);
    row->addStretch(1);
    return row;
}

}  // namespace

QWidget* makeResolvedRow(const AgentResolvedPrompt& record, QWidget* parent) {
    auto* row = new QWidget(parent);
    auto* layout = new QHBoxLayout(row);
    layout->setContentsMargins(0, 2, 0, 2);
    layout->setSpacing(8);
    auto* text = new QVBoxLayout;
    text->setSpacing(1);
    text->addWidget(new QFText(QString::fromStdString(record.title), F::qfCaption, N::qfText1, row));
    text->addWidget(new QFText(QString::fromStdString(record.detail), F::qfCaptionMono, N::qfText2, row));
    layout->addLayout(text, 1);
    layout->addWidget(new QFText(QString::fromStdString(record.resolvedAt), F::qfCaptionMono, N::qfText3, row), 0,
                      Qt::AlignTop);
    return row;
}

IdleView::IdleView(QWidget* parent) : QWidget(parent) {
    setObjectName("IdleView");
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(40, 40, 40, 40);
    layout->setSpacing(14);
    layout->addStretch(1);
    layout->addWidget(new PulsingShield(this), 0, Qt::AlignHCenter);
    auto* title = new QFText(QString::fromUtf8(AgentStatusViewModel::idleTitle.data()), F::qfHeading2, N::qfText1, this);
    title->setObjectName("IdleTitle");
    title->setAlignment(Qt::AlignHCenter);
    layout->addWidget(title);
    bridgeValue_ = new QFText({}, F::qfCaptionMono, N::qfText1, this);
    bridgeValue_->setObjectName("IdleBridgeValue");
    manifestValue_ = new QFText({}, F::qfCaptionMono, N::qfText1, this);
    manifestValue_->setObjectName("IdleManifestValue");
    manifestValue_->setTextInteractionFlags(Qt::TextSelectableByMouse);
    layout->addLayout(bridgeLabel("Bridge", bridgeValue_, this));
    layout->addLayout(bridgeLabel("Manifest", manifestValue_, this));

    recentBlock_ = new QWidget(this);
    recentBlock_->setObjectName("IdleRecentBlock");
    auto* recent = new QVBoxLayout(recentBlock_);
    recent->setContentsMargins(0, 10, 0, 0);
    recent->setSpacing(6);
    recent->addWidget(new QFSeparator(recentBlock_));
    recent->addWidget(new QFText("RECENT", F::qfMicro, N::qfText3, recentBlock_));
    recentRows_ = new QVBoxLayout;
    recentRows_->setSpacing(4);
    recent->addLayout(recentRows_);
    recentBlock_->setMaximumWidth(520);
    layout->addWidget(recentBlock_, 0, Qt::AlignHCenter);
    recentBlock_->hide();
    layout->addStretch(1);
}

void IdleView::bind(const std::string& listenerStatus, const std::string& endpointPath,
                    const std::vector<AgentResolvedPrompt>& recentResponses) {
    bridgeValue_->setText(QString::fromStdString(listenerStatus));
    manifestValue_->setText(QString::fromStdString(endpointPath));
    if (recentResponses == shownRecent_) return;
    shownRecent_ = recentResponses;
    while (auto* item = recentRows_->takeAt(0)) {
        delete item->widget();
        delete item;
    }
    for (const auto& record : recentResponses) recentRows_->addWidget(makeResolvedRow(record, recentBlock_));
    recentBlock_->setVisible(!recentResponses.empty());
}

}  // namespace quillfort::ui
