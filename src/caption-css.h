// SPDX-License-Identifier: GPL-2.0-or-later
#pragma once

#include "caption-style.h"

#include <QString>

/** The custom CSS that lays out the caption page in `style` and shows `text`; an empty text hides the box. */
QString captionCss(const CaptionStyle &style, const QString &text);

// That CSS in its two parts, one after the other: the first stays the same from caption to caption.

QString captionStyleRules(const CaptionStyle &style);
QString captionTextRules(const QString &text);

/** `text` as the inside of a double-quoted CSS string (CSS Syntax Level 3, "Consume a string token"). */
QString escapeCssText(const QString &text);
