// SPDX-License-Identifier: GPL-2.0-or-later
#pragma once

#include <QObject>

class QWidget;

/** Lets the wheel scroll a panel without changing the settings that the pointer comes over. */
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
