// SPDX-License-Identifier: GPL-2.0-or-later
#pragma once

#include "captions/caption-style.h"

#include <QString>

/**
 * The custom CSS that lays out the caption page in `style` and shows `text`; an empty text hides the box.
 * @param direction that of the language the text is for
 */
QString captionCss(const CaptionStyle &style, const QString &text, Qt::LayoutDirection direction = Qt::LeftToRight);

// That CSS in its two parts, one after the other: the first stays the same from caption to caption.

QString captionStyleRules(const CaptionStyle &style);
QString captionTextRules(const QString &text, Qt::LayoutDirection direction = Qt::LeftToRight);

/**
 * `text` with each of its right-to-left lines between U+2067 and U+2069, since the page lays out every line from left
 * to right. A line is right-to-left by its first letter, and in a right-to-left language by any: there a sentence may
 * begin with a foreign name. All other lines stay as they are.
 */
QString isolateRightToLeftLines(const QString &text, Qt::LayoutDirection direction = Qt::LeftToRight);

/** `text` as the inside of a double-quoted CSS string (CSS Syntax Level 3, "Consume a string token"). */
QString escapeCssText(const QString &text);
