// SPDX-License-Identifier: GPL-2.0-or-later
#pragma once

#include <QList>
#include <QString>

#include <optional>

// A strict reader of the little CSS that captions need (CSS Syntax Level 3, sections 3.3 and 4.3). What a browser
// would recover from, an unfinished string or block above all, is refused: it means that a text got out of its string.

struct CssDeclaration {
	QString name;
	/** As written, blanks trimmed; a value that is one string is decoded instead. */
	QString value;
	bool isString = false;
};

struct CssRule {
	QString selector;
	QList<CssDeclaration> declarations;
};

/** The rules of a sheet; nothing when it is not of the strict form. */
std::optional<QList<CssRule>> readCss(const QString &sheet);
