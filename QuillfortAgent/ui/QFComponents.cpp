#include "QuillfortAgent/ui/QFComponents.hpp"

#include <algorithm>

#include <QFontMetrics>
#include <QPainter>
#include <QPainterPath>
#include <QStyle>
#include <QVBoxLayout>

#include "QuillfortAgent/ui/QFSymbols.hpp"

namespace quillfort::ui {

namespace {

using QFPalette::color;

constexpr qreal kPressedScale = 0.97;
constexpr int kSymbolSize = 14;
constexpr int kSymbolGap = 6;

void strokeRounded(QPainter& painter, const QRectF& rect, qreal radius, const QColor& pen, qreal width) {
    painter.setPen(QPen(pen, width));
    painter.setBrush(Qt::NoBrush);
    const qreal inset = width / 2;
    painter.drawRoundedRect(rect.adjusted(inset, inset, -inset, -inset), radius, radius);
}

void paintFocusRing(QPainter& painter, const QRectF& rect, qreal radius) {
    QColor ring = color(QFColorName::qfAccent);
    ring.setAlphaF(0.55f);
    strokeRounded(painter, rect.adjusted(-2, -2, 2, 2), radius + 2, ring, 2);
}

// The header of a section: the title, room, and a chevron that turns down while
// open. A plain button (press, not toggle, for assistive tools); the section
// keeps the open state.
class QFSectionHeader final : public QAbstractButton {
public:
    explicit QFSectionHeader(const QString& title, QWidget* parent) : QAbstractButton(parent) {
        setText(title);
        setFocusPolicy(Qt::TabFocus);  // a click must not leave a focus ring behind
        setCursor(Qt::PointingHandCursor);
        setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Fixed);
    }
    [[nodiscard]] QSize sizeHint() const override {
        const QFontMetrics metrics(QFPalette::font(QFFontName::qfBodyMed));
        return {metrics.horizontalAdvance(text()) + 40, std::max(metrics.height(), 16) + 4};
    }

protected:
    void paintEvent(QPaintEvent*) override {
        QPainter painter(this);
        painter.setRenderHint(QPainter::Antialiasing);
        if (hasFocus()) paintFocusRing(painter, QRectF(rect()).adjusted(2, 2, -2, -2), 4);
        painter.setFont(QFPalette::font(QFFontName::qfBodyMed));
        painter.setPen(color(QFColorName::qfText1));
        const QRectF textRect = QRectF(rect()).adjusted(0, 0, -24, 0);
        painter.drawText(textRect, Qt::AlignVCenter | Qt::AlignLeft, text());
        const QRectF chevron(width() - 16, (height() - 12) / 2.0, 12, 12);
        painter.translate(chevron.center());
        if (property("expanded").toBool()) painter.rotate(90);
        painter.translate(-chevron.center());
        QFSymbols::paint(painter, "chevron.right", chevron, color(QFColorName::qfText3));
    }
};

}  // namespace

QFText::QFText(const QString& text, QFFontName font, QFColorName color, QWidget* parent)
    : QLabel(text, parent), font_(font), color_(color) {
    setStyle(font, color);
}

void QFText::setStyle(QFFontName font, QFColorName color) {
    font_ = font;
    color_ = color;
    setFont(QFPalette::font(font_));
    applyColor();
}

void QFText::applyColor() {
    QPalette palette = this->palette();
    palette.setColor(QPalette::WindowText, QFPalette::color(color_));
    palette.setColor(QPalette::Text, QFPalette::color(color_));
    setPalette(palette);
}

QFSeparator::QFSeparator(QWidget* parent) : QWidget(parent) {
    setFixedHeight(1);
    setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Fixed);
}

void QFSeparator::paintEvent(QPaintEvent*) {
    QPainter(this).fillRect(rect(), color(QFColorName::qfBorderMid));
}

QFCard::QFCard(QWidget* parent) : QFrame(parent), layout_(new QVBoxLayout(this)) {
    layout_->setSpacing(14);
    layout_->setContentsMargins(20, 20, 20, 20);
    layout_->setAlignment(Qt::AlignTop);
    setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Preferred);
}

void QFCard::paintEvent(QPaintEvent*) {
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    const QRectF shape = QRectF(rect()).adjusted(0.5, 0.5, -0.5, -0.5);
    painter.setPen(Qt::NoPen);
    painter.setBrush(color(QFColorName::qfElevated));
    painter.drawRoundedRect(shape, 12, 12);
    strokeRounded(painter, QRectF(rect()), 12, color(QFColorName::qfBorder), 1);
}

QFStatusPill::QFStatusPill(const QString& text, QFColorName color, QWidget* parent)
    : QLabel(text, parent), color_(color) {
    setSizePolicy(QSizePolicy::Fixed, QSizePolicy::Fixed);
}

QSize QFStatusPill::sizeHint() const {
    const QFontMetrics metrics(QFPalette::font(QFFontName::qfCaption));
    return {10 + 6 + 6 + metrics.horizontalAdvance(text()) + 10, metrics.height() + 10};
}

void QFStatusPill::paintEvent(QPaintEvent*) {
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    const QColor tint = color(color_);
    QColor fill = tint;
    fill.setAlphaF(0.12f);
    painter.setPen(Qt::NoPen);
    painter.setBrush(fill);
    const QRectF shape(rect());
    painter.drawRoundedRect(shape, shape.height() / 2, shape.height() / 2);
    painter.setBrush(tint);
    painter.drawEllipse(QRectF(10, shape.center().y() - 3, 6, 6));
    painter.setPen(tint);
    painter.setFont(QFPalette::font(QFFontName::qfCaption));
    painter.drawText(shape.adjusted(22, 0, -10, 0), Qt::AlignVCenter | Qt::AlignLeft, text());
}

QFButtonBase::QFButtonBase(const QString& text, QWidget* parent) : QAbstractButton(parent) {
    setText(text);
    setFocusPolicy(Qt::TabFocus);  // a click must not leave a focus ring behind
    setCursor(Qt::PointingHandCursor);
    setSizePolicy(QSizePolicy::Fixed, QSizePolicy::Fixed);
}

void QFButtonBase::setSymbol(const char* symbolName) {
    symbol_ = symbolName;
    updateGeometry();
    update();
}

QSize QFButtonBase::sizeHint() const {
    const QFontMetrics metrics(QFPalette::font(QFFontName::qfCaption));
    QString label = text();
    label.remove(QLatin1Char('&'));
    int width = metrics.horizontalAdvance(label) + 2 * padding().width();
    if (symbol_) width += kSymbolSize + kSymbolGap;
    return {width, std::max(metrics.height(), kSymbolSize) + 2 * padding().height()};
}

void QFButtonBase::paintEvent(QPaintEvent*) {
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    QRectF shape = QRectF(rect()).adjusted(2, 2, -2, -2);
    if (isDown()) {
        // Pressed buttons shrink a little about their centre.
        const QPointF centre = shape.center();
        painter.translate(centre);
        painter.scale(kPressedScale, kPressedScale);
        painter.translate(-centre);
    }
    if (!isEnabled()) painter.setOpacity(0.45);
    paintBackground(painter, shape);
    if (hasFocus()) paintFocusRing(painter, shape, 9);

    const QFont font = QFPalette::font(QFFontName::qfCaption);
    const QFontMetrics metrics(font);
    QString plain = text();
    plain.remove(QLatin1Char('&'));
    const int contentWidth = metrics.horizontalAdvance(plain) + (symbol_ ? kSymbolSize + kSymbolGap : 0);
    qreal x = shape.center().x() - contentWidth / 2.0;
    const QColor label = labelColor();
    if (symbol_) {
        QFSymbols::paint(painter, symbol_, QRectF(x, shape.center().y() - kSymbolSize / 2.0, kSymbolSize, kSymbolSize),
                         label);
        x += kSymbolSize + kSymbolGap;
    }
    painter.setFont(font);
    painter.setPen(label);
    painter.drawText(QRectF(x, shape.top(), shape.right() - x, shape.height()),
                     Qt::AlignVCenter | Qt::AlignLeft | Qt::TextShowMnemonic, text());
}

QFAccentButton::QFAccentButton(const QString& text, bool destructive, QWidget* parent)
    : QFButtonBase(text, parent), destructive_(destructive) {}

QColor QFAccentButton::fillColor() const {
    return color(destructive_ ? QFColorName::qfRed : QFColorName::qfAccent);
}

void QFAccentButton::paintBackground(QPainter& painter, const QRectF& shape) {
    painter.setPen(Qt::NoPen);
    painter.setBrush(underMouse() ? fillColor().lighter(108) : fillColor());
    painter.drawRoundedRect(shape, 9, 9);
}

QColor QFAccentButton::labelColor() const {
    return Qt::white;
}

QFGhostButton::QFGhostButton(const QString& text, QWidget* parent) : QFButtonBase(text, parent) {}

void QFGhostButton::paintBackground(QPainter& painter, const QRectF& shape) {
    if (underMouse()) {
        painter.setPen(Qt::NoPen);
        painter.setBrush(color(QFColorName::qfHover));
        painter.drawRoundedRect(shape, 9, 9);
    }
    strokeRounded(painter, shape, 9, color(QFColorName::qfBorder), 1);
}

QColor QFGhostButton::labelColor() const {
    return color(QFColorName::qfText2);
}

void QFSelectionChip::setSelected(bool selected) {
    if (selected == selected_) return;
    selected_ = selected;
    setAccessibleDescription(selected ? QStringLiteral("selected") : QString());
    update();
}

QFSelectionChip::QFSelectionChip(const QString& title, QWidget* parent) : QAbstractButton(parent) {
    setText(title);
    setFocusPolicy(Qt::TabFocus);  // a click must not leave a focus ring behind
    setCursor(Qt::PointingHandCursor);
    setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Fixed);
}

QSize QFSelectionChip::sizeHint() const {
    const QFontMetrics metrics(QFPalette::font(QFFontName::qfCaption));
    return {metrics.horizontalAdvance(text()) + 28, metrics.height() + 20};
}

QSize QFSelectionChip::minimumSizeHint() const {
    return sizeHint();
}

void QFSelectionChip::paintEvent(QPaintEvent*) {
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    if (!isEnabled()) painter.setOpacity(0.45);
    const QRectF shape = QRectF(rect()).adjusted(2, 2, -2, -2);
    const bool selected = selected_;
    if (selected) {
        painter.setPen(Qt::NoPen);
        painter.setBrush(color(QFColorName::qfAccentMuted));
        painter.drawRoundedRect(shape, 8, 8);
        QColor outline = color(QFColorName::qfAccent);
        outline.setAlphaF(0.4f);
        strokeRounded(painter, shape, 8, outline, 1.5);
    } else {
        if (underMouse() && isEnabled()) {
            painter.setPen(Qt::NoPen);
            painter.setBrush(color(QFColorName::qfHover));
            painter.drawRoundedRect(shape, 8, 8);
        }
        strokeRounded(painter, shape, 8, color(QFColorName::qfBorder), 1);
    }
    if (hasFocus()) paintFocusRing(painter, shape, 8);
    painter.setFont(QFPalette::font(QFFontName::qfCaption));
    painter.setPen(color(selected ? QFColorName::qfAccent : QFColorName::qfText3));
    painter.drawText(shape, Qt::AlignCenter | Qt::TextShowMnemonic, text());
}

QFSection::QFSection(const QString& title, bool defaultExpanded, QWidget* parent)
    : QWidget(parent), header_(new QFSectionHeader(title, this)), content_(new QWidget(this)) {
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(12, 12, 12, 12);
    layout->setSpacing(10);
    layout->addWidget(header_);
    layout->addWidget(content_);
    contentLayout_ = new QVBoxLayout(content_);
    contentLayout_->setContentsMargins(0, 0, 0, 0);
    contentLayout_->setSpacing(8);
    QObject::connect(header_, &QAbstractButton::clicked, this, [this] { setExpanded(!isExpanded()); });
    setExpanded(defaultExpanded);
}

bool QFSection::isExpanded() const {
    return header_->property("expanded").toBool();
}

void QFSection::setExpanded(bool expanded) {
    header_->setProperty("expanded", expanded);
    header_->setAccessibleDescription(expanded ? QStringLiteral("expanded") : QStringLiteral("collapsed"));
    header_->update();
    content_->setVisible(expanded);
}

void QFSection::paintEvent(QPaintEvent*) {
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    strokeRounded(painter, QRectF(rect()), 10, color(QFColorName::qfBorder), 1);
}

}  // namespace quillfort::ui
