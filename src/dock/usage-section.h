// SPDX-License-Identifier: GPL-2.0-or-later
#pragma once

#include <QGroupBox>

class QLabel;

/** The minutes that are left to the account; the service tells of them only near their end. */
class UsageSection : public QGroupBox {
	Q_OBJECT

public:
	UsageSection();

public Q_SLOTS:
	/** @param type "captions" or "dubbed"; others change nothing */
	void onLimitWarning(const QString &type, int minutesRemaining);
	void onLimitReached(const QString &type);

private:
	friend class PluginDockTest;

	QLabel *minutesLabel(const QString &type) const;

	QLabel *captionMinutesLabel;
	QLabel *dubbedMinutesLabel;
};
