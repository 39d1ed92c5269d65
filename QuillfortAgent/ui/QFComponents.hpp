// The agent's component set: a card, a status pill, accent and ghost buttons,
// a collapsible section, a selection chip and a styled label. Each paints
// itself from the one palette, and the clickable ones are QAbstractButtons so
// that focus, keyboard activation, mnemonics and accessibility come with them.
#pragma once

#include <QAbstractButton>
#include <QFrame>
#include <QLabel>
#include <QString>

#include "QuillfortAgent/ui/QFPalette.hpp"

class QVBoxLayout;

namespace quillfort::ui {

// A label in one of the named fonts and colours; re-coloured when the appearance flips.
class QFText : public QLabel {
public:
    QFText(const QString& text, QFFontName font, QFColorName color, QWidget* parent = nullptr);
    void setStyle(QFFontName font, QFColorName color);
    // Colours follow the appearance; the font stays as set, named or not (the
    // prompt's title, say, is a larger monospaced one).
    void applyColor();

private:
    QFFontName font_;
    QFColorName color_;
};

// A one-point line in the border colour.
class QFSeparator : public QWidget {
public:
    explicit QFSeparator(QWidget* parent = nullptr);

protected:
    void paintEvent(QPaintEvent* event) override;
};

// Content stacked vertically on an elevated, rounded, outlined surface.
class QFCard : public QFrame {
public:
    explicit QFCard(QWidget* parent = nullptr);
    [[nodiscard]] QVBoxLayout* contentLayout() const noexcept { return layout_; }

protected:
    void paintEvent(QPaintEvent* event) override;

private:
    QVBoxLayout* layout_;
};

// A dot and a caption in a capsule tinted with the pill's colour.
class QFStatusPill : public QLabel {
public:
    QFStatusPill(const QString& text, QFColorName color, QWidget* parent = nullptr);
    [[nodiscard]] QSize sizeHint() const override;
    [[nodiscard]] QSize minimumSizeHint() const override { return sizeHint(); }

protected:
    void paintEvent(QPaintEvent* event) override;

private:
    QFColorName color_;
};

// Shared painting of the two button styles: pressed scale, focus ring, symbol.
class QFButtonBase : public QAbstractButton {
public:
    explicit QFButtonBase(const QString& text, QWidget* parent = nullptr);
    void setSymbol(const char* symbolName);
    [[nodiscard]] QSize sizeHint() const override;
    [[nodiscard]] QSize minimumSizeHint() const override { return sizeHint(); }

protected:
    void paintEvent(QPaintEvent* event) override;
    virtual void paintBackground(QPainter& painter, const QRectF& shape) = 0;
    [[nodiscard]] virtual QColor labelColor() const = 0;
    [[nodiscard]] virtual QSize padding() const = 0;

private:
    const char* symbol_ = nullptr;
};

// The filled call-to-action button; red when destructive.
class QFAccentButton : public QFButtonBase {
public:
    explicit QFAccentButton(const QString& text, bool destructive = false, QWidget* parent = nullptr);
    [[nodiscard]] bool isDestructive() const noexcept { return destructive_; }
    [[nodiscard]] QColor fillColor() const;

protected:
    void paintBackground(QPainter& painter, const QRectF& shape) override;
    [[nodiscard]] QColor labelColor() const override;
    [[nodiscard]] QSize padding() const override { return {16, 9}; }

private:
    bool destructive_;
};

// The quiet, outlined button.
class QFGhostButton : public QFButtonBase {
public:
    explicit QFGhostButton(const QString& text, QWidget* parent = nullptr);

protected:
    void paintBackground(QPainter& painter, const QRectF& shape) override;
    [[nodiscard]] QColor labelColor() const override;
    [[nodiscard]] QSize padding() const override { return {14, 8}; }
};

// One of a row of choices: a selected look the owner sets from its model.
// Pressing only reports the press; the owner decides what is selected. Not a
// checkable button, so that assistive tools offer it a plain press action.
class QFSelectionChip : public QAbstractButton {
public:
    explicit QFSelectionChip(const QString& title, QWidget* parent = nullptr);
    void setSelected(bool selected);
    [[nodiscard]] bool isSelected() const noexcept { return selected_; }
    [[nodiscard]] QSize sizeHint() const override;
    [[nodiscard]] QSize minimumSizeHint() const override;

protected:
    void paintEvent(QPaintEvent* event) override;

private:
    bool selected_ = false;
};

// A titled, outlined block whose header shows or hides its content.
class QFSection : public QWidget {
public:
    QFSection(const QString& title, bool defaultExpanded, QWidget* parent = nullptr);
    [[nodiscard]] QAbstractButton* header() const noexcept { return header_; }
    [[nodiscard]] QWidget* content() const noexcept { return content_; }
    [[nodiscard]] QVBoxLayout* contentLayout() const noexcept { return contentLayout_; }
    [[nodiscard]] bool isExpanded() const;
    void setExpanded(bool expanded);

protected:
    void paintEvent(QPaintEvent* event) override;

private:
    QAbstractButton* header_;
    QWidget* content_;
    QVBoxLayout* contentLayout_;
};

}  // namespace quillfort::ui
