// SPDX-License-Identifier: GPL-3.0-or-later
#include "base/sentence.h"

#include <QTest>

class SentenceTest : public QObject {
	Q_OBJECT

private Q_SLOTS:
	void wordsBecomeASentence_data()
	{
		QTest::addColumn<QString>("words");
		QTest::addColumn<QString>("sentence");
		QTest::newRow("first letter and full stop") << "thank you for waiting" << "Thank you for waiting.";
		QTest::newRow("pronoun") << "so i think i'm right" << "So I think I'm right.";
		QTest::newRow("words with an i stay") << "it is in" << "It is in.";
		QTest::newRow("double blanks") << "  go   on " << "Go on.";
		QTest::newRow("nothing said") << "" << "";
		QTest::newRow("blanks alone") << "   " << "";
	}

	void wordsBecomeASentence()
	{
		QFETCH(QString, words);
		QTEST(sentenceFromWords(words), "sentence");
	}

	void growingWordsHaveNoFullStop() { QCOMPARE(capitalisedWords("i see"), "I see"); }

	void translationsBeginWithACapital_data()
	{
		QTest::addColumn<QString>("text");
		QTest::addColumn<QString>("tidy");
		QTest::newRow("lower case") << "il n'a pas" << "Il n'a pas";
		QTest::newRow("accented") << "éa  va." << "Éa va.";
		QTest::newRow("empty") << " " << "";
	}

	void translationsBeginWithACapital()
	{
		QFETCH(QString, text);
		QTEST(tidied(text), "tidy");
	}
};

QTEST_GUILESS_MAIN(SentenceTest)
#include "sentence-test.moc"
