// SPDX-License-Identifier: GPL-3.0-or-later
#include "base/sentence.h"

#include <QStringList>

namespace {

QString withCapital(QString text)
{
	if (!text.isEmpty()) {
		text[0] = text.at(0).toUpper();
	}
	return text;
}

} // namespace

QString tidied(const QString &text)
{
	return withCapital(text.simplified());
}

QString capitalisedWords(const QString &words)
{
	QStringList list = words.simplified().split(u' ', Qt::SkipEmptyParts);
	for (QString &word : list) {
		if (word == QLatin1String("i") || word.startsWith(QLatin1String("i'"))) {
			word[0] = u'I';
		}
	}
	return withCapital(list.join(u' '));
}

QString sentenceFromWords(const QString &words)
{
	const QString text = capitalisedWords(words);
	return text.isEmpty() ? text : text + u'.';
}
