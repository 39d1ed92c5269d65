// The one palette of the agent's windows: the named colours in their light and
// dark values and the named fonts. Widgets read them at paint or bind time, so
// an appearance change repaints without rebuilding anything.
#pragma once

#include <optional>

#include <QColor>
#include <QFont>

class QApplication;
class QWidget;

namespace quillfort::ui {

enum class QFColorName {
    qfBg,
    qfElevated,
    qfHover,
    qfSunken,
    qfBorder,
    qfBorderMid,
    qfAccent,
    qfAccentMuted,
    qfText1,
    qfText2,
    qfText3,
    qfGreen,
    qfAmber,
    qfRed,
};

enum class QFFontName {
    qfDisplay,
    qfHeading1,
    qfHeading2,
    qfHeading3,
    qfBody,
    qfBodyMed,
    qfBodyMono,
    qfCaption,
    qfCaptionMono,
    qfMicro,
};

namespace QFPalette {

// The value of a colour in one appearance.
[[nodiscard]] QColor color(QFColorName name, bool dark);
// The value in the current appearance.
[[nodiscard]] QColor color(QFColorName name);
// Sizes are device-independent pixels, so they scale with the screen.
[[nodiscard]] QFont font(QFFontName name);

// Dark when the application palette's window colour is dark, unless an
// appearance was forced (QUILLFORT_AGENT_APPEARANCE, used by the screenshots).
[[nodiscard]] bool isDark();
void forceAppearance(std::optional<bool> dark);

// Gives a window the standard-widget palette that matches the named colours
// and keeps it matching when the desktop's palette changes.
void styleWindow(QWidget& window);
// Watches the application for palette changes and re-styles every window and
// named-colour widget when the appearance flips.
void install(QApplication& application);
// Re-applies colours to every live widget (after forceAppearance). Fonts do not
// depend on the appearance and stay as each widget set them.
void refreshAll();

}  // namespace QFPalette

}  // namespace quillfort::ui
