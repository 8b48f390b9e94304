// SPDX-License-Identifier: GPL-2.0-or-later
#pragma once

#include <QLabel>
#include <QPushButton>
#include <QString>

class QBoxLayout;
class QColor;
class QComboBox;
class QFrame;
class QSlider;
class QStyleOptionButton;
class QVBoxLayout;

// What the sections of the dock are made of.

namespace dock {

/** The module's text for `key` in the user's language. */
QString text(const char *key);

/** A label that wraps where the dock is narrow. With a buddy it names that control to assistive technology. */
QLabel *label(const char *key, QWidget *buddy = nullptr);

/** The same on one line, for a row that has more to show beside it. */
QLabel *rowLabel(const char *key, QWidget *buddy = nullptr);

/** A horizontal line between two sections. */
QFrame *separator();

/** No margins around what the layout holds. */
void removeMargins(QBoxLayout *layout);

/** Lets texts longer than the dock is wide be cut with an ellipsis instead of widening it. */
void keepNarrow(QComboBox *combo);

/** Selects the item that holds `data`; without one the selection stays. */
void selectData(QComboBox *combo, const QString &data);

/** A button under the hand of the pointer. */
QPushButton *button(const QString &text, const char *styleSheet = "");

/** A button that looks like a link. */
QPushButton *flatButton(const char *key, const char *styleSheet);

/** Adds a row with a label and a swatch of a colour, which is to be clicked. */
QPushButton *colorRow(QVBoxLayout &rows, const char *key);
void showColor(QPushButton *swatch, const QColor &color);

/** Adds a row that says a percentage, and under it the slider for it, 0 to 100. */
QSlider *percentRows(QVBoxLayout &rows, const char *key, int percent, QLabel *&valueLabel);
QString percentText(int percent);

/** Styling a widget again costs as much as the first time, even with the same style sheet. */
void setStyleSheet(QWidget *widget, const QString &styleSheet);

/** `text` as a label shows it in red; markup in it is interpreted. */
QString redText(const QString &text);

/** A tooltip that says a text from outside as it is, wrapped, and no more than the start of an endless one. */
QString toolTip(const QString &text);

/** The first `length` characters of a message from outside, its markup made harmless. */
QString cutAndEscape(const QString &message, qsizetype length);

} // namespace dock

/** A button whose text is cut with an ellipsis where the dock is too narrow for it. */
class ElidingButton : public QPushButton {
public:
	ElidingButton();

protected:
	void initStyleOption(QStyleOptionButton *option) const override;
};
