// SPDX-License-Identifier: GPL-2.0-or-later
#pragma once

#include <QString>

/** The page a caption source loads: one empty element, no script; style and text come from the source's CSS. */
QString captionPageHtml();

/**
 * Path of a language's page in the system's temporary directory. Where something there bears the name that is not the
 * user's own, it is one in the user's runtime directory, and empty when there is none: a browser source would show
 * whatever another user has put there.
 */
QString captionPagePath(const QString &language);

/** Whether a page is one of the module's own, by its name: in whatever folder, since that may change from start to
 * start. */
bool isCaptionPage(const QString &path);

/** Path of a language's text file in the system's temporary directory; nothing reads or writes it. */
QString captionDataPath(const QString &language);

/**
 * Writes the page to `path`; a file that cannot be opened, or is not the user's own, is left as it is.
 * @return whether the page is there now
 */
bool writeCaptionPage(const QString &path);

/**
 * Sees to it that a language's page is there, in the temporary directory or else in the user's runtime directory.
 * @return where it is; empty when it could be written to neither
 */
QString provideCaptionPage(const QString &language);
