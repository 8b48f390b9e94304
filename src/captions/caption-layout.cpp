// SPDX-License-Identifier: GPL-2.0-or-later
#include "captions/caption-layout.h"

#include <QFontMetricsF>
#include <QPainter>
#include <QTextOption>

#include <algorithm>
#include <cmath>

namespace {

constexpr int kPadding = 10;
/** A browser advances a tab to the next multiple of so many blanks. */
constexpr int kTabBlanks = 8;

QFont fontOf(const CaptionSheet &sheet)
{
	QFont font;
	font.setFamilies({sheet.family, QStringLiteral("sans-serif")});
	font.setStyleHint(QFont::SansSerif);
	font.setPixelSize(sheet.fontSize);
	font.setBold(sheet.bold);
	return font;
}

/** Characters that have neither a glyph nor an effect on others, as a browser leaves them out. */
bool isInvisible(QChar character)
{
	return character.category() == QChar::Other_Control && character != u'\n' && character != u'\t';
}

/** The end of the text, from which what cannot be seen is gone; the break at its end begins no further line. */
QString visibleText(const QString &text)
{
	QString visible = text.right(CaptionLayout::kMaxCharacters);
	if (!visible.isEmpty() && visible.front().isLowSurrogate()) {
		visible.removeFirst();
	}
	visible.removeIf(isInvisible);
	if (visible.endsWith(u'\n')) {
		visible.chop(1);
	}
	return visible;
}

int toPixels(qreal length)
{
	return static_cast<int>(std::lround(length));
}

/** How much of the room that a line leaves stands before it. */
qreal startOf(CaptionSheet::Side side, qreal room)
{
	return side == CaptionSheet::Side::Left ? 0 : side == CaptionSheet::Side::Right ? room : room / 2;
}

} // namespace

CaptionLayout::CaptionLayout(const CaptionSheet &sheet, QSize view) : viewHeight(view.height())
{
	const QFont font = fontOf(sheet);
	const QFontMetricsF metrics(font);
	strut = {toPixels(metrics.ascent()), toPixels(metrics.descent())};
	const int width = std::max(1, view.width() - 2 * kPadding);
	const QStringList texts = visibleText(sheet.text).split(u'\n');
	for (const QString &paragraph : texts) {
		layOutParagraph(paragraph, font, width);
	}
	place(sheet, view);
}

void CaptionLayout::layOutParagraph(const QString &text, const QFont &font, int width)
{
	QTextOption option;
	option.setTextDirection(Qt::LeftToRight);
	option.setWrapMode(QTextOption::WrapAtWordBoundaryOrAnywhere);
	option.setTabStopDistance(kTabBlanks * QFontMetricsF(font).horizontalAdvance(u' '));

	QTextLayout &layout = *paragraphs.emplace_back(std::make_unique<QTextLayout>(text, font));
	layout.setTextOption(option);
	layout.setCacheEnabled(true);
	layout.beginLayout();
	for (QTextLine line = layout.createLine(); line.isValid(); line = layout.createLine()) {
		line.setLineWidth(width);
		textWidth = std::max(textWidth, line.naturalTextWidth());
	}
	layout.endLayout();
	lines += layout.lineCount();
	wrapped |= layout.lineCount() > 1;
	if (wrapped) {
		textWidth = width;
	}
}

CaptionLayout::LineHeight CaptionLayout::heightOf(const QTextLine &line) const
{
	return {std::max(strut.ascent, toPixels(line.ascent())), std::max(strut.descent, toPixels(line.descent()))};
}

void CaptionLayout::place(const CaptionSheet &sheet, QSize view)
{
	int height = 0;
	for (const auto &paragraph : paragraphs) {
		for (int number = 0; number < paragraph->lineCount(); ++number) {
			const LineHeight line = heightOf(paragraph->lineAt(number));
			height += line.ascent + line.descent;
		}
	}
	const qreal left = startOf(sheet.box, view.width() - textWidth - 2 * kPadding);
	const int boxLeft = toPixels(left);
	const int boxRight = toPixels(left + textWidth + 2 * kPadding);
	const int boxTop = view.height() - height - 2 * kPadding;
	boxRect = QRect(boxLeft, boxTop, boxRight - boxLeft, height + 2 * kPadding);

	int top = boxTop + kPadding;
	for (const auto &paragraph : paragraphs) {
		for (int number = 0; number < paragraph->lineCount(); ++number) {
			QTextLine line = paragraph->lineAt(number);
			const LineHeight needed = heightOf(line);
			const qreal indent = startOf(sheet.lines, textWidth - line.naturalTextWidth());
			line.setPosition({left + kPadding + indent, top + needed.ascent - line.ascent()});
			top += needed.ascent + needed.descent;
		}
	}
}

void CaptionLayout::draw(QPainter &painter) const
{
	for (const auto &paragraph : paragraphs) {
		for (int number = 0; number < paragraph->lineCount(); ++number) {
			const QTextLine line = paragraph->lineAt(number);
			// Glyphs may reach beyond the height of their line.
			if (line.y() + 2 * line.height() > 0 && line.y() < viewHeight + line.height()) {
				line.draw(&painter, {});
			}
		}
	}
}
