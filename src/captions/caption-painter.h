// SPDX-License-Identifier: GPL-2.0-or-later
#pragma once

#include "captions/caption-sheet.h"

#include <QImage>
#include <QPoint>
#include <QSize>

/** A painted caption: that part of the view that has something in it. */
struct CaptionPicture {
	/** ARGB, premultiplied, values as in sRGB. Null when there is nothing to be seen. */
	QImage image;
	/** Of the image's upper left corner in the view. */
	QPoint position;
};

/**
 * Paints a caption as a browser draws its page.
 * @param view pixels; nothing is painted into a view without any
 *
 * Any thread, also several at once. Takes milliseconds, more with the first text in a font.
 */
CaptionPicture paintCaption(const CaptionSheet &sheet, QSize view);
