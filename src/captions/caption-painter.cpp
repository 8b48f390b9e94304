// SPDX-License-Identifier: GPL-2.0-or-later
#include "captions/caption-painter.h"

#include "captions/caption-layout.h"
#include "captions/shadow-blur.h"

#include <QPainter>

#include <array>
#include <ranges>

namespace {

constexpr qreal kCornerRadius = 8;
constexpr std::array kOutlineOffsets{QPoint(-2, -2), QPoint(2, -2), QPoint(-2, 2), QPoint(2, 2)};
constexpr QPoint kShadowOffset(0, 4);
constexpr qreal kShadowOpacity = 0.8;
/** More than glyphs, outline and shadow reach beyond the text, and an empty edge around them, which may be scaled. */
constexpr int kMargin = 16;

QImage emptyImage(QSize size)
{
	QImage image(size, QImage::Format_ARGB32_Premultiplied);
	image.fill(Qt::transparent);
	return image;
}

/** The text in its own colour without alpha, and in those of its emoji. */
QImage paintText(const CaptionSheet &sheet, const CaptionLayout &layout, const QRect &area)
{
	QImage text = emptyImage(area.size());
	QPainter painter(&text);
	painter.setRenderHint(QPainter::TextAntialiasing);
	painter.translate(-area.topLeft());
	painter.setPen(QColor(sheet.color.rgb()));
	layout.draw(painter);
	return text;
}

/** The text in black, as its outline and its shadow are. */
QImage blackened(QImage text)
{
	QPainter painter(&text);
	painter.setCompositionMode(QPainter::CompositionMode_SourceIn);
	painter.fillRect(text.rect(), Qt::black);
	return text;
}

void multiplyBy(QImage &image, double opacity)
{
	QColor factor(Qt::black);
	factor.setAlphaF(static_cast<float>(opacity));
	QPainter painter(&image);
	painter.setCompositionMode(QPainter::CompositionMode_DestinationIn);
	painter.fillRect(image.rect(), factor);
}

} // namespace

CaptionPicture paintCaption(const CaptionSheet &sheet, QSize view)
{
	if (sheet.text.isEmpty() || view.isEmpty()) {
		return {};
	}
	const CaptionLayout layout(sheet, view);
	const QRect area = layout.box().adjusted(-kMargin, -kMargin, kMargin, kMargin) & QRect({}, view);
	const QImage text = paintText(sheet, layout, area);
	const QImage black = blackened(text);

	QImage picture = emptyImage(area.size());
	if (picture.isNull() || text.isNull()) {
		return {};
	}
	QPainter painter(&picture);
	painter.setRenderHint(QPainter::Antialiasing);
	painter.setPen(Qt::NoPen);
	painter.setBrush(sheet.background);
	painter.drawRoundedRect(layout.box().translated(-area.topLeft()), kCornerRadius, kCornerRadius);
	// The first of the shadows is on top.
	painter.setOpacity(kShadowOpacity);
	painter.drawImage(kShadowOffset, blurredShadow(black.convertToFormat(QImage::Format_Alpha8)));
	painter.setOpacity(1);
	for (const QPoint &offset : std::views::reverse(kOutlineOffsets)) {
		painter.drawImage(offset, black);
	}
	painter.setOpacity(static_cast<qreal>(sheet.color.alphaF()));
	painter.drawImage(0, 0, text);
	painter.end();
	if (sheet.opacity < 1) {
		multiplyBy(picture, sheet.opacity);
	}
	return {picture, area.topLeft()};
}
