// SPDX-License-Identifier: GPL-2.0-or-later
#pragma once

#include <QColor>
#include <QString>

#include <optional>

/** What the CSS of a caption says: how it looks, and its text. */
struct CaptionSheet {
	enum class Side { Left, Center, Right };

	/** Where the box stands when it is narrower than the page. */
	Side box = Side::Center;
	/** Where the lines stand in the box. */
	Side lines = Side::Center;
	QColor background;
	QColor color;
	/** Of text and box together, 0 to 1. */
	double opacity = 1.0;
	/** Fallen back from to the system's sans-serif. */
	QString family;
	/** Pixels, 1 to 1000. */
	int fontSize = 40;
	bool bold = false;
	/** Empty when nothing, not even the box, is shown. */
	QString text;

	bool operator==(const CaptionSheet &) const = default;
};

/**
 * Reads what captionCss() writes, and nothing else: its rules with their declarations in that order, of which only the
 * values that a style sets may vary. Nothing for any other sheet.
 */
std::optional<CaptionSheet> readCaptionSheet(const QString &css);
