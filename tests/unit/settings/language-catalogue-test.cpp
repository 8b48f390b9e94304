// SPDX-License-Identifier: GPL-2.0-or-later
#include "settings/language-catalogue.h"

#include <QTest>

class LanguageCatalogueTest : public QObject {
	Q_OBJECT

private Q_SLOTS:
	void holdsThirtyOneLanguagesInOrderOfTheirNames();
	void displayNames_data();
	void displayNames();
};

void LanguageCatalogueTest::holdsThirtyOneLanguagesInOrderOfTheirNames()
{
	QStringList entries;
	for (const LanguageInfo &language : kSupportedLanguages) {
		entries.append(language.code + QLatin1Char(' ') + language.name);
	}
	const QStringList expected = QStringLiteral("ar Arabic;bg Bulgarian;zh Chinese;hr Croatian;cs Czech;da "
						    "Danish;nl Dutch;en English;fil Filipino;"
						    "fi Finnish;fr French;de German;el Greek;hi Hindi;id Indonesian;it "
						    "Italian;ja Japanese;ko Korean;"
						    "ms Malay;no Norwegian;pl Polish;pt Portuguese;ro Romanian;ru "
						    "Russian;sk Slovak;es Spanish;sv Swedish;"
						    "ta Tamil;tr Turkish;uk Ukrainian;vi Vietnamese")
					     .split(QLatin1Char(';'));
	QCOMPARE(entries, expected);
	QCOMPARE(kSupportedLanguages.size(), 31);
}

void LanguageCatalogueTest::displayNames_data()
{
	QTest::addColumn<QString>("name");
	QTest::newRow("fil") << QStringLiteral("Filipino");
	QTest::newRow("en") << QStringLiteral("English");
	QTest::newRow("vi") << QStringLiteral("Vietnamese");
	QTest::newRow("xx") << QStringLiteral("XX");
	QTest::newRow("EN") << QStringLiteral("EN");
	QTest::newRow("pt-BR") << QStringLiteral("PT-BR");
	QTest::newRow("") << QString();
}

void LanguageCatalogueTest::displayNames()
{
	QFETCH(QString, name);
	QCOMPARE(languageDisplayName(QString::fromUtf8(QTest::currentDataTag())), name);
}

QTEST_MAIN(LanguageCatalogueTest)
#include "language-catalogue-test.moc"
