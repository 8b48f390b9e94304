// SPDX-License-Identifier: GPL-2.0-or-later
#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QMap>
#include <QRegularExpression>
#include <QSet>
#include <QTest>

#include <array>

#include <util/text-lookup.h>

using namespace Qt::StringLiterals;

namespace {

/** As OBS names its own: it asks a module for the file that is named as the one it took its own texts from. */
constexpr std::array kTranslations{"ar-SA",  "bg-BG", "cs-CZ", "da-DK", "de-DE", "el-GR", "es-ES", "fi-FI",
				   "fil-PH", "fr-FR", "hi-IN", "hr-HR", "id-ID", "it-IT", "ja-JP", "ko-KR",
				   "ms-MY",  "nb-NO", "nl-NL", "pl-PL", "pt-BR", "pt-PT", "ro-RO", "ru-RU",
				   "sk-SK",  "sv-SE", "ta-IN", "tr-TR", "uk-UA", "vi-VN", "zh-CN", "zh-TW"};

constexpr auto kFolder = TALVORA_SOURCE_DIR "/data/locale";

/** A line that is neither empty nor a comment; its text has no quotes or backslashes but escapes that OBS knows. */
const QRegularExpression &entryPattern()
{
	static const QRegularExpression pattern(QStringLiteral(R"re(^([A-Za-z0-9.]+)="((?:[^"\\\r]|\\["n])*)"$)re"));
	return pattern;
}

/** What code puts values in place of, in alphabetical order. */
QStringList placeholders(const QString &text)
{
	static const QRegularExpression pattern(QStringLiteral("%(?:n|L?[0-9]+)"));
	QStringList found;
	for (const QRegularExpressionMatch &match : pattern.globalMatch(text)) {
		found += match.captured();
	}
	found.sort();
	return found;
}

/** What OBS makes of a text as it is in the file. */
QString unescaped(QString text)
{
	return text.replace(u"\\\""_s, u"\""_s).replace(u"\\n"_s, u"\n"_s);
}

} // namespace

/** The English texts and the code that asks for them, and their translations. */
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
	void everyTranslationIsNamedAsObsNamesItsOwn();
	void translationHasOnlyTextsThatEnglishHas_data();
	void translationHasOnlyTextsThatEnglishHas();
	void translationKeepsPlaceholdersAndLineBreaks_data();
	void translationKeepsPlaceholdersAndLineBreaks();
	void obsReadsEveryTranslation_data();
	void obsReadsEveryTranslation();

private:
	static void addTranslations();
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
		QCOMPARE(QString::fromUtf8(text), unescaped(it.value()));
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

void LocaleTest::everyTranslationIsNamedAsObsNamesItsOwn()
{
	QStringList expected{u"en-US.ini"_s};
	for (const char *translation : kTranslations) {
		expected += QLatin1String(translation) + u".ini"_s;
	}
	expected.sort();
	QCOMPARE(QDir(QString::fromUtf8(kFolder)).entryList(QDir::Files | QDir::Hidden, QDir::Name), expected);
}

/** One row for each translation: its path. */
void LocaleTest::addTranslations()
{
	QTest::addColumn<QString>("path");
	for (const char *translation : kTranslations) {
		QTest::newRow(translation)
			<< u"%1/%2.ini"_s.arg(QString::fromUtf8(kFolder), QString::fromUtf8(translation));
	}
}

void LocaleTest::translationHasOnlyTextsThatEnglishHas_data()
{
	addTranslations();
}

/** Texts may be missing: OBS shows the English ones in their place. */
void LocaleTest::translationHasOnlyTextsThatEnglishHas()
{
	QFETCH(const QString, path);
	const QString texts = read(path);
	QVERIFY2(texts.endsWith(u"\"\n"_s), "the last line has no end");
	QSet<QString> seen;
	for (const QString &line : texts.split(u'\n', Qt::SkipEmptyParts)) {
		const QRegularExpressionMatch entry = entryPattern().match(line);
		QVERIFY2(entry.hasMatch(), qPrintable(u"no key and text: "_s + line));
		const QString key = entry.captured(1);
		const QString text = entry.captured(2);
		QVERIFY2(defined.contains(key), qPrintable(key + u" is no key of en-US.ini"_s));
		QVERIFY2(!seen.contains(key), qPrintable(key + u" is defined twice"_s));
		seen += key;
		QVERIFY2(!text.isEmpty(), qPrintable(key + u" is empty"_s));
		QCOMPARE(text.trimmed(), text);
	}
	QVERIFY(!seen.isEmpty());
}

void LocaleTest::translationKeepsPlaceholdersAndLineBreaks_data()
{
	addTranslations();
}

void LocaleTest::translationKeepsPlaceholdersAndLineBreaks()
{
	QFETCH(const QString, path);
	for (const QString &line : read(path).split(u'\n', Qt::SkipEmptyParts)) {
		const QString english = defined.value(line.section(u'=', 0, 0));
		QVERIFY2(placeholders(line) == placeholders(english), qPrintable(line));
		QVERIFY2(line.count(u"\\n"_s) == english.count(u"\\n"_s), qPrintable(line));
	}
}

void LocaleTest::obsReadsEveryTranslation_data()
{
	addTranslations();
}

void LocaleTest::obsReadsEveryTranslation()
{
	QFETCH(const QString, path);
	lookup_t *texts = text_lookup_create(path.toUtf8());
	QVERIFY(texts);
	for (const QString &line : read(path).split(u'\n', Qt::SkipEmptyParts)) {
		const QRegularExpressionMatch entry = entryPattern().match(line);
		const QByteArray key = entry.captured(1).toUtf8();
		const char *text = nullptr;
		QVERIFY2(text_lookup_getstr(texts, key, &text), key);
		QCOMPARE(QString::fromUtf8(text), unescaped(entry.captured(2)));
	}
	text_lookup_destroy(texts);
}

QTEST_APPLESS_MAIN(LocaleTest)
#include "locale-test.moc"
