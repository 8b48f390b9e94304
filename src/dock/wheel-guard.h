// SPDX-License-Identifier: GPL-2.0-or-later
#pragma once

#include <QObject>

class QWidget;

/**
 * Lets the wheel scroll a panel without changing the settings that the pointer comes over, even those that have the
 * keyboard: they hold at once, on air. The list of an open combo box is a window of its own, which scrolls as ever.
 */
class WheelGuard : public QObject {
	Q_OBJECT

public:
	/** Guards the combo boxes and sliders that are in `panel` now, for as long as it lives. */
	static void protect(QWidget *panel);

protected:
	bool eventFilter(QObject *watched, QEvent *event) override;

private:
	using QObject::QObject;
};
