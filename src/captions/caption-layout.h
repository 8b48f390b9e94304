// SPDX-License-Identifier: GPL-2.0-or-later
#pragma once

#include "captions/caption-sheet.h"

#include <QRectF>
#include <QSize>
#include <QTextLayout>

#include <memory>
#include <vector>

class QPainter;

/**
 * A caption laid out as a browser lays out its page: a box with a padding of 10 px around the text, as wide as the text
 * at most, at the lower edge of the view, so that of a long text the end stays in view.
 *
 * Unlike in a browser, a word that is wider than the view is broken. Any thread; one at a time.
 */
class CaptionLayout {
public:
	/** Longer texts lose their beginning, which no view has room for. UTF-16 units. */
	static constexpr qsizetype kMaxCharacters = 16384;

	/** @param view pixels, at least 1 by 1 */
	CaptionLayout(const CaptionSheet &sheet, QSize view);

	/** The box, whole pixels of the view; it may reach above the view's upper edge. */
	QRect box() const { return boxRect; }

	/** How many lines there are, those above the view too. */
	int lineCount() const { return lines; }

	/** Draws those lines that reach into the view with the painter's pen, in the view's coordinates. */
	void draw(QPainter &painter) const;

private:
	struct LineHeight {
		int ascent = 0;
		int descent = 0;
	};
	void layOutParagraph(const QString &text, const QFont &font, int width);
	LineHeight heightOf(const QTextLine &line) const;
	void place(const CaptionSheet &sheet, QSize view);

	/** Between line breaks of the text. QTextLayout can neither be copied nor moved. */
	std::vector<std::unique_ptr<QTextLayout>> paragraphs;
	/** What a line of the font alone needs. */
	LineHeight strut;
	QRect boxRect;
	int viewHeight = 0;
	int lines = 0;
	/** Of the widest line, pixels. */
	qreal textWidth = 0;
	/** A line has been broken for want of room. */
	bool wrapped = false;
};
