// SPDX-License-Identifier: GPL-2.0-or-later
#include <QDirIterator>
#include <QFile>
#include <QMap>
#include <QRegularExpression>
#include <QSet>
#include <QTest>

#include <util/text-lookup.h>

using namespace Qt::StringLiterals;

/** The English texts and the code that asks for them. */
class LocaleTest : public QObject {
	Q_OBJECT

private Q_SLOTS:
	void initTestCase();
	void everyKeyUsedIsDefined();
	void everyKeyDefinedIsUsed();
	void everyKeyHasOneText();
	void obsReadsEveryText();
	void placeholdersAreThere();
	void everyLookUpNamesItsKey();

private:
	static QString read(const QString &path);
	QString sources;
	QString locale;
	QSet<QString> used;
	QMap<QString, QString> defined;
};

QString LocaleTest::read(const QString &path)
{
	QFile file(path);
	return file.open(QIODevice::ReadOnly) ? QString::fromUtf8(file.readAll()) : QString();
}

void LocaleTest::initTestCase()
{
	QDirIterator files(QStringLiteral(TALVORA_SOURCE_DIR "/src"), {u"*.cpp"_s, u"*.h"_s}, QDir::Files,
			   QDirIterator::Subdirectories);
	while (files.hasNext()) {
		sources += read(files.next());
	}
	QVERIFY(!sources.isEmpty());
	// Keys are dotted words in upper camel case wherever they stand: in a call, in a table, in an argument.
	const QRegularExpression key(QStringLiteral(R"re("((?:[A-Z][A-Za-z0-9]*\.)+[A-Z][A-Za-z0-9]*)")re"));
	for (const QRegularExpressionMatch &match : key.globalMatch(sources)) {
		used += match.captured(1);
	}

	locale = read(QStringLiteral(TALVORA_SOURCE_DIR "/data/locale/en-US.ini"));
	const QRegularExpression line(QStringLiteral(R"re(^([^=\n]+)="([^\n]*)"$)re"),
				      QRegularExpression::MultilineOption);
	for (const QRegularExpressionMatch &match : line.globalMatch(locale)) {
		defined[match.captured(1)] = match.captured(2);
	}
	QVERIFY(used.size() > 50);
}

void LocaleTest::everyKeyUsedIsDefined()
{
	for (const QString &key : std::as_const(used)) {
		QVERIFY2(defined.contains(key), qPrintable(key + u" is used and not defined"_s));
	}
}

void LocaleTest::everyKeyDefinedIsUsed()
{
	for (auto entry = defined.keyBegin(); entry != defined.keyEnd(); ++entry) {
		QVERIFY2(used.contains(*entry), qPrintable(*entry + u" is defined and not used"_s));
	}
}

void LocaleTest::everyKeyHasOneText()
{
	QSet<QString> seen;
	for (const QString &line : locale.split(u'\n', Qt::SkipEmptyParts)) {
		const QString key = line.section(u'=', 0, 0);
		QVERIFY2(defined.contains(key), qPrintable(u"no key and text: "_s + line));
		QVERIFY2(!seen.contains(key), qPrintable(key + u" is defined twice"_s));
		seen += key;
		QVERIFY2(!defined.value(key).trimmed().isEmpty(), qPrintable(key + u" is empty"_s));
		QCOMPARE(defined.value(key).trimmed(), defined.value(key));
	}
}

void LocaleTest::obsReadsEveryText()
{
	lookup_t *texts = text_lookup_create(TALVORA_SOURCE_DIR "/data/locale/en-US.ini");
	QVERIFY(texts);
	for (auto it = defined.begin(); it != defined.end(); ++it) {
		const char *text = nullptr;
		QVERIFY2(text_lookup_getstr(texts, it.key().toUtf8(), &text), qPrintable(it.key()));
		QCOMPARE(QString::fromUtf8(text), it.value());
	}
	text_lookup_destroy(texts);
}

void LocaleTest::placeholdersAreThere()
{
	for (auto it = defined.begin(); it != defined.end(); ++it) {
		QCOMPARE(it.value().contains(u"%1"_s), it.key() == u"Status.OpeningLogin"_s);
	}
}

/** A key put together at run time would escape the tests above. */
void LocaleTest::everyLookUpNamesItsKey()
{
	const QRegularExpression call(QStringLiteral(R"re(obs_module_text\(([^)]*)\))re"));
	for (const QRegularExpressionMatch &match : call.globalMatch(sources)) {
		const QString argument = match.captured(1);
		QVERIFY2(argument.startsWith(u'"') || argument == u"key"_s, qPrintable(argument));
	}
}

QTEST_APPLESS_MAIN(LocaleTest)
#include "locale-test.moc"
