// SPDX-License-Identifier: GPL-2.0-or-later
#pragma once

#include <QLabel>
#include <QPushButton>
#include <QString>

class QBoxLayout;
class QComboBox;
class QFrame;
class QStyleOptionButton;

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
