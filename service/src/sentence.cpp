// SPDX-License-Identifier: GPL-3.0-or-later
#include "sentence.h"

#include <QStringList>

QString tidied(const QString &text)
{
	return text.simplified();
}

QString capitalisedWords(const QString &words)
{
	QStringList list = tidied(words).split(u' ', Qt::SkipEmptyParts);
	for (QString &word : list) {
		if (word == QLatin1String("i") || word.startsWith(QLatin1String("i'"))) {
			word[0] = u'I';
		}
	}
	QString text = list.join(u' ');
	if (!text.isEmpty()) {
		text[0] = text.at(0).toUpper();
	}
	return text;
}

QString sentenceFromWords(const QString &words)
{
	const QString text = capitalisedWords(words);
	return text.isEmpty() ? text : text + u'.';
}
