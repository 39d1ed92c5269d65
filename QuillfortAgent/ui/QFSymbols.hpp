// The symbols the agent's windows and tray item show, drawn here with QPainter
// so that nothing depends on an icon theme being installed. Names follow the
// symbol names the coordinator and the views use ("shield", "chevron.right").
#pragma once

#include <string_view>

#include <QColor>
#include <QIcon>
#include <QRectF>

class QPainter;

namespace quillfort::ui::QFSymbols {

// Draws `name` filling `bounds` (kept square, centred); unknown names draw nothing.
void paint(QPainter& painter, std::string_view name, const QRectF& bounds, const QColor& color);
// An icon of the symbol at the usual sizes, sharp at any device pixel ratio.
[[nodiscard]] QIcon icon(std::string_view name, const QColor& color);
[[nodiscard]] bool isKnown(std::string_view name) noexcept;

}  // namespace quillfort::ui::QFSymbols
