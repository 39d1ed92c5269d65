#include "QuillfortAgent/ui/QFSymbols.hpp"

#include <algorithm>
#include <array>

#include <QPainter>
#include <QPainterPath>
#include <QPainterPathStroker>
#include <QPixmap>

namespace quillfort::ui::QFSymbols {

namespace {

// Every symbol is drawn in a 24 x 24 box and scaled to the target.
QPainterPath shieldOutline() {
    QPainterPath path;
    path.moveTo(12, 2);
    path.lineTo(20.5, 5.2);
    path.cubicTo(20.5, 13.5, 17.5, 18.8, 12, 22);
    path.cubicTo(6.5, 18.8, 3.5, 13.5, 3.5, 5.2);
    path.closeSubpath();
    return path;
}

QPainterPath stroked(const QPainterPath& path, qreal width) {
    QPainterPathStroker stroker;
    stroker.setWidth(width);
    stroker.setCapStyle(Qt::RoundCap);
    stroker.setJoinStyle(Qt::RoundJoin);
    return stroker.createStroke(path);
}

QPainterPath shield(bool leftHalf, bool checkered) {
    const QPainterPath outline = shieldOutline();
    QPainterPath path = stroked(outline, 1.8);
    if (leftHalf) {
        QPainterPath half;
        half.addRect(0, 0, 12, 24);
        path = path.united(outline.intersected(half));
    }
    if (checkered) {
        QPainterPath squares;
        squares.addRect(0, 0, 12, 11);
        squares.addRect(12, 11, 12, 13);
        path = path.united(outline.intersected(squares));
    }
    return path;
}

QPainterPath line(QPointF from, QPointF to) {
    QPainterPath path(from);
    path.lineTo(to);
    return path;
}

QPainterPath circleWith(const QPainterPath& mark) {
    QPainterPath circle;
    circle.addEllipse(QPointF(12, 12), 10, 10);
    return circle.subtracted(stroked(mark, 2.4));
}

QPainterPath symbolPath(std::string_view name) {
    if (name == "shield") return shield(false, false);
    if (name == "shield.lefthalf.filled") return shield(true, false);
    if (name == "shield.checkered") return shield(false, true);
    if (name == "exclamationmark.triangle.fill") {
        QPainterPath triangle;
        triangle.moveTo(12, 2.5);
        triangle.lineTo(22.5, 21);
        triangle.lineTo(1.5, 21);
        triangle.closeSubpath();
        QPainterPath mark = stroked(line({12, 9}, {12, 14}), 2.4);
        mark.addEllipse(QPointF(12, 17.6), 1.35, 1.35);
        return stroked(triangle, 1.5).united(triangle).subtracted(mark);
    }
    if (name == "xmark.circle.fill") {
        QPainterPath mark = line({8.5, 8.5}, {15.5, 15.5});
        mark.addPath(line({15.5, 8.5}, {8.5, 15.5}));
        return circleWith(mark);
    }
    if (name == "checkmark.circle.fill") {
        QPainterPath mark(QPointF(7.5, 12.5));
        mark.lineTo(10.8, 15.6);
        mark.lineTo(16.5, 8.8);
        return circleWith(mark);
    }
    if (name == "chevron.right") {
        QPainterPath mark(QPointF(9, 5));
        mark.lineTo(16, 12);
        mark.lineTo(9, 19);
        return stroked(mark, 2.2);
    }
    return {};
}

constexpr std::array<std::string_view, 7> kNames{"shield",
                                                 "shield.lefthalf.filled",
                                                 "shield.checkered",
                                                 "exclamationmark.triangle.fill",
                                                 "xmark.circle.fill",
                                                 "checkmark.circle.fill",
                                                 "chevron.right"};

}  // namespace

bool isKnown(std::string_view name) noexcept {
    return std::find(kNames.begin(), kNames.end(), name) != kNames.end();
}

void paint(QPainter& painter, std::string_view name, const QRectF& bounds, const QColor& color) {
    const QPainterPath path = symbolPath(name);
    if (path.isEmpty()) return;
    const qreal side = std::min(bounds.width(), bounds.height());
    painter.save();
    painter.setRenderHint(QPainter::Antialiasing);
    painter.translate(bounds.center().x() - side / 2, bounds.center().y() - side / 2);
    painter.scale(side / 24.0, side / 24.0);
    painter.setPen(Qt::NoPen);
    painter.setBrush(color);
    painter.drawPath(path);
    painter.restore();
}

QIcon icon(std::string_view name, const QColor& color) {
    QIcon result;
    for (const int side : {16, 22, 24, 32, 48, 64}) {
        for (const qreal ratio : {1.0, 2.0}) {
            QPixmap pixmap(static_cast<int>(side * ratio), static_cast<int>(side * ratio));
            pixmap.fill(Qt::transparent);
            {
                QPainter painter(&pixmap);
                paint(painter, name, QRectF(0, 0, pixmap.width(), pixmap.height()), color);
            }
            pixmap.setDevicePixelRatio(ratio);
            result.addPixmap(pixmap);
        }
    }
    return result;
}

}  // namespace quillfort::ui::QFSymbols
