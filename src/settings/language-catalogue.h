// SPDX-License-Identifier: GPL-2.0-or-later
#pragma once

#include <QList>
#include <QMap>
#include <QString>
#include <QStringList>

/** A language the service understands. */
struct LanguageInfo {
	/** Code sent to the service, "en" or "fil". */
	QString code;
	/** English display name. */
	QString name;
};

/** Which outputs a target language has. Both may be off. */
struct LanguageTarget {
	bool dubbing = false;
	bool captions = false;

	bool operator==(const LanguageTarget &) const = default;
};

/** The chosen target languages by code; iterated in ascending order of code. */
using LanguageTargets = QMap<QString, LanguageTarget>;

/** The languages of the service, ordered by English name. */
extern const QList<LanguageInfo> kSupportedLanguages;

/** The catalogue's name for `code` (compared exactly), or `code` in upper case when it is not in the catalogue. */
QString languageDisplayName(const QString &code);
