// SPDX-License-Identifier: GPL-2.0-or-later
#pragma once

#include <QColor>
#include <QFont>
#include <QString>

/** How captions look, as the user chose it. Values are taken as given; nothing is range-checked. */
struct CaptionStyle {
	/** "left", "center" or "right". */
	QString alignment = QStringLiteral("center");
	QColor textColor = Qt::white;
	QColor backgroundColor = Qt::transparent;
	/** Opacity of text and box together, percent. */
	int opacity = 100;
	QFont font = QFont(QStringLiteral("-apple-system"), 40, QFont::DemiBold);
};
