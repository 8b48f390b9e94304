// SPDX-License-Identifier: GPL-2.0-or-later
#pragma once

#include "captions/caption-style.h"
#include "fuzz.h"

/** A caption out of arbitrary bytes: a byte of flags, a line with the font's family, one with the alignment, a text. */
struct CaptionInput {
	CaptionStyle style;
	QString text;

	CaptionInput(const uint8_t *data, size_t size)
	{
		FuzzInput input(data, size);
		const uint8_t flags = input.byte();
		style.font.setFamilies({QString::fromUtf8(input.line())});
		style.alignment = QString::fromUtf8(input.line());
		const QByteArrayView rest = input.rest();
		// UTF-16 may hold halves of characters, UTF-8 cannot.
		if (flags & 1) {
			text.resize(rest.size() / 2);
			for (qsizetype i = 0; i < text.size(); ++i) {
				text[i] =
					QChar(static_cast<uint8_t>(rest[2 * i]), static_cast<uint8_t>(rest[2 * i + 1]));
			}
		} else {
			text = QString::fromUtf8(rest);
		}
	}
};
