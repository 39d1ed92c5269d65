#include "QuillfortAgent/ui/QFPalette.hpp"

#include <QApplication>
#include <QEvent>
#include <QFontDatabase>
#include <QPalette>
#include <QWidget>

#include "QuillfortAgent/ui/QFComponents.hpp"

namespace quillfort::ui::QFPalette {

namespace {

std::optional<bool> forcedAppearance;
bool lastDark = false;
constexpr const char* kStyledWindowProperty = "qfStyledWindow";

QColor rgb(double r, double g, double b, double a = 1.0) {
    return QColor::fromRgbF(static_cast<float>(r), static_cast<float>(g), static_cast<float>(b),
                            static_cast<float>(a));
}

QPalette windowPalette(bool dark) {
    QPalette palette;
    const QColor text = color(QFColorName::qfText1, dark);
    const QColor muted = color(QFColorName::qfText3, dark);
    palette.setColor(QPalette::Window, color(QFColorName::qfBg, dark));
    palette.setColor(QPalette::WindowText, text);
    palette.setColor(QPalette::Base, color(QFColorName::qfElevated, dark));
    palette.setColor(QPalette::AlternateBase, color(QFColorName::qfHover, dark));
    palette.setColor(QPalette::Text, text);
    palette.setColor(QPalette::Button, color(QFColorName::qfElevated, dark));
    palette.setColor(QPalette::ButtonText, text);
    palette.setColor(QPalette::Highlight, color(QFColorName::qfAccent, dark));
    palette.setColor(QPalette::HighlightedText, Qt::white);
    palette.setColor(QPalette::ToolTipBase, color(QFColorName::qfElevated, dark));
    palette.setColor(QPalette::ToolTipText, text);
    palette.setColor(QPalette::PlaceholderText, muted);
    palette.setColor(QPalette::Light, color(QFColorName::qfHover, dark));
    palette.setColor(QPalette::Mid, color(QFColorName::qfBorderMid, dark));
    palette.setColor(QPalette::Dark, color(QFColorName::qfSunken, dark));
    palette.setColor(QPalette::Disabled, QPalette::WindowText, muted);
    palette.setColor(QPalette::Disabled, QPalette::Text, muted);
    palette.setColor(QPalette::Disabled, QPalette::ButtonText, muted);
    return palette;
}

// Application palette changes come from the desktop (theme switch); our own
// windows carry their palette on the widget, so setting it never loops back.
class PaletteWatcher final : public QObject {
public:
    using QObject::QObject;
    bool eventFilter(QObject* watched, QEvent* event) override {
        if (watched == qApp && event->type() == QEvent::ApplicationPaletteChange && isDark() != lastDark) {
            refreshAll();
        }
        return false;
    }
};

}  // namespace

QColor color(QFColorName name, bool dark) {
    using N = QFColorName;
    switch (name) {
        case N::qfBg:
            return dark ? rgb(0.06, 0.06, 0.07) : rgb(0.96, 0.96, 0.98);
        case N::qfElevated:
            return dark ? rgb(0.09, 0.09, 0.10) : rgb(1, 1, 1);
        case N::qfHover:
            return dark ? rgb(0.12, 0.12, 0.14) : rgb(0.93, 0.95, 0.98);
        case N::qfSunken:
            return dark ? rgb(0.04, 0.04, 0.05) : rgb(0.89, 0.91, 0.96);
        case N::qfBorder:
            return dark ? rgb(1, 1, 1, 0.06) : rgb(0, 0, 0, 0.08);
        case N::qfBorderMid:
            return dark ? rgb(1, 1, 1, 0.10) : rgb(0, 0, 0, 0.14);
        case N::qfAccent:
            return rgb(0.49, 0.36, 0.99);
        case N::qfAccentMuted:
            return dark ? rgb(0.24, 0.18, 0.48) : rgb(0.91, 0.88, 1.00);
        case N::qfText1:
            return dark ? rgb(0.94, 0.94, 0.96) : rgb(0.09, 0.10, 0.14);
        case N::qfText2:
            return dark ? rgb(0.55, 0.55, 0.60) : rgb(0.36, 0.38, 0.44);
        case N::qfText3:
            return dark ? rgb(0.29, 0.29, 0.35) : rgb(0.55, 0.57, 0.64);
        case N::qfGreen:
            return dark ? rgb(0.20, 0.83, 0.60) : rgb(0.06, 0.73, 0.50);
        case N::qfAmber:
            return dark ? rgb(0.98, 0.75, 0.14) : rgb(0.85, 0.47, 0.02);
        case N::qfRed:
            return dark ? rgb(0.97, 0.44, 0.44) : rgb(0.86, 0.15, 0.15);
    }
    return {};
}

QColor color(QFColorName name) {
    return color(name, isDark());
}

QFont font(QFFontName name) {
    using N = QFFontName;
    const bool mono = name == N::qfBodyMono || name == N::qfCaptionMono;
    QFont font = mono ? QFontDatabase::systemFont(QFontDatabase::FixedFont) : QApplication::font();
    auto sized = [&](int pixels, QFont::Weight weight) {
        font.setPixelSize(pixels);
        font.setWeight(weight);
        return font;
    };
    switch (name) {
        case N::qfDisplay:
            return sized(28, QFont::Bold);
        case N::qfHeading1:
            return sized(22, QFont::Bold);
        case N::qfHeading2:
            return sized(17, QFont::DemiBold);
        case N::qfHeading3:
            return sized(15, QFont::Medium);
        case N::qfBody:
            return sized(14, QFont::Normal);
        case N::qfBodyMed:
            return sized(14, QFont::Medium);
        case N::qfBodyMono:
            return sized(13, QFont::Normal);
        case N::qfCaption:
            return sized(12, QFont::Medium);
        case N::qfCaptionMono:
            return sized(11, QFont::Normal);
        case N::qfMicro:
            return sized(10, QFont::Bold);
    }
    return font;
}

bool isDark() {
    if (forcedAppearance) return *forcedAppearance;
    return QApplication::palette().color(QPalette::Window).lightness() < 128;
}

void forceAppearance(std::optional<bool> dark) {
    forcedAppearance = dark;
}

void styleWindow(QWidget& window) {
    window.setProperty(kStyledWindowProperty, true);
    window.setPalette(windowPalette(isDark()));
    window.setAutoFillBackground(true);
}

void install(QApplication& application) {
    lastDark = isDark();
    application.installEventFilter(new PaletteWatcher(&application));
}

void refreshAll() {
    lastDark = isDark();
    const QPalette palette = windowPalette(lastDark);
    for (QWidget* widget : QApplication::allWidgets()) {
        if (widget->property(kStyledWindowProperty).toBool()) widget->setPalette(palette);
        if (auto* text = dynamic_cast<QFText*>(widget)) text->applyColor();
        widget->update();
    }
}

}  // namespace quillfort::ui::QFPalette
