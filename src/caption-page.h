// SPDX-License-Identifier: GPL-2.0-or-later
#pragma once

#include <QString>

/** The page a caption source loads: one empty element, no script; style and text come from the source's CSS. */
QString captionPageHtml();

/** Path of a language's page in the system's temporary directory. */
QString captionPagePath(const QString &language);

/** Path of a language's text file in the system's temporary directory; nothing reads or writes it. */
QString captionDataPath(const QString &language);

/** Writes the page to `path`; a file that cannot be opened is left as it is. */
void writeCaptionPage(const QString &path);
