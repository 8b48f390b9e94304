// SPDX-License-Identifier: GPL-2.0-or-later
#include "settings/api-key-text.h"

#include "settings/settings.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QTest>

namespace {

/** A settings file that has a key, and other words that are not to be found in the key. */
QByteArray wholeFile(const QByteArray &key)
{
	Settings settings;
	settings.apiKey = QString::fromUtf8(key);
	settings.audioSource = QStringLiteral("Microphone");
	settings.languageTargets = {{QStringLiteral("es"), {true, true}}};
	QJsonObject json = settings.toJson();
	json.insert(QStringLiteral("voices"), QJsonObject{{QStringLiteral("es"), QStringLiteral("Lucia")}});
	return QJsonDocument(json).toJson();
}

/** Whether three neighbouring characters of the key are still there. */
bool showsTheKey(const QByteArray &text, const QByteArray &key)
{
	for (qsizetype at = 0; at + 3 <= key.size(); ++at) {
		if (text.contains(key.mid(at, 3))) {
			return true;
		}
	}
	return false;
}

const QByteArray kKey = "ZQXJVWKYPH";

} // namespace

class ApiKeyTextTest : public QObject {
	Q_OBJECT

private Q_SLOTS:
	void blanksTheKeyAndNothingElse_data();
	void blanksTheKeyAndNothingElse();
	void whatHasNoKeyStays_data();
	void whatHasNoKeyStays();
	void noKeyIsLeftWhereverAFileEnds();
	void noKeyIsLeftWhereverAFileBegins();
	void noKeyIsLeftWhateverByteIsLostOrChanged();
	void noKeyIsLeftInUtf16();
};

void ApiKeyTextTest::blanksTheKeyAndNothingElse_data()
{
	QTest::addColumn<QByteArray>("text");
	QTest::addColumn<QByteArray>("clean");
	const auto row = [](const char *name, const char *text, const char *clean) {
		QTest::newRow(name) << QByteArray(text) << QByteArray(clean);
	};
	row("as it is written", R"({"apiKey": "abc", "b": "c"})", R"({"apiKey": ""   , "b": "c"})");
	row("without blanks", R"({"apiKey":"abc","b":"c"})", R"({"apiKey":""   ,"b":"c"})");
	row("on lines of their own", "{\n\"apiKey\"\n:\n\"abc\"\n}", "{\n\"apiKey\"\n:\n\"\"   \n}");
	row("in it all", R"({"a": [{"apiKey": "abc"}]})", R"({"a": [{"apiKey": ""   }]})");
	row("twice", R"({"apiKey": "abc", "apiKey": "de"})", R"({"apiKey": ""   , "apiKey": ""  })");
	row("a longer name", R"({"oldApiKey_2": "abc"})", R"({"oldApiKey_2": ""   })");
	row("another case", R"({"APIKEY": "abc"})", R"({"APIKEY": ""   })");
	row("an escaped name", R"({"\u0061pi\u004bey": "abc"})", R"({"\u0061pi\u004bey": ""   })");
	row("a quotation mark in it", R"({"apiKey": "a\"bc", "b": 1})", R"({"apiKey": ""     , "b": 1})");
	row("a backslash at its end", R"({"apiKey": "abc\\", "b": 1})", R"({"apiKey": ""     , "b": 1})");
	row("a number", R"({"apiKey": 123, "b": 1})", R"({"apiKey": 0  , "b": 1})");
	row("an array", R"({"apiKey": ["a]", "b"], "b": 1})", R"({"apiKey": 0          , "b": 1})");
	row("an object", R"({"apiKey": {"a": {"b": "}c"}}, "b": 1})", R"({"apiKey": 0                 , "b": 1})");
	row("cut short", R"({"b": 1, "apiKey": "abc)", R"({"b": 1, "apiKey": ""  )");
	row("cut short at an escape", R"({"apiKey": "abc\)", R"({"apiKey": ""   )");
	row("cut short in an array", R"({"apiKey": ["abc)", R"({"apiKey": 0    )");
	row("cut short before it", R"({"apiKey": )", R"({"apiKey": )");
	row("cut short in its name", R"({"apiK)", R"({"apiK)");
	row("the colon lost", R"({"apiKey" "abc"})", R"({"apiKey" ""   })");
	row("a mark lost before it", R"({"apiKey": abc", "b": 1})", R"({"apiKey": 0   , "b": 1})");
	row("no JSON", "apiKey = abc\nb = c", "apiKey = 0  \nb = c");
	row("a mark too many", R"({"apiKey": "a"bc", "b": 1})", R"({"apiKey": ""    , "b": 1})");
	row("single marks", "{'apiKey': 'abc'}", "{'apiKey': 0    }");
	row("JSON in a string", R"({"a": "{\"apiKey\":\"abc\",\"b\":1}"})", R"({"a": "{\"apiKey\":0      ,\"b\":1}"})");
	row("no name", R"(["tak_live_1", "b"])", R"(["**********", "b"])");
}

void ApiKeyTextTest::blanksTheKeyAndNothingElse()
{
	QFETCH(QByteArray, text);
	QTEST(withoutApiKeys(text), "clean");
	QCOMPARE(withoutApiKeys(withoutApiKeys(text)), withoutApiKeys(text));
}

void ApiKeyTextTest::whatHasNoKeyStays_data()
{
	QTest::addColumn<QByteArray>("text");
	QTest::newRow("nothing") << QByteArray();
	QTest::newRow("an empty one") << wholeFile({});
	QTest::newRow("no key at all") << QByteArray(R"({"audioSource": "Mikrofon", "voices": {"es": "Lucía"}})");
	QTest::newRow("a name in an array") << QByteArray(R"(["apiKey", "b"])");
	QTest::newRow("other bytes") << QByteArray("\0\xFF{\"\\", 5);
}

void ApiKeyTextTest::whatHasNoKeyStays()
{
	QFETCH(QByteArray, text);
	QCOMPARE(withoutApiKeys(text), text);
}

void ApiKeyTextTest::noKeyIsLeftWhereverAFileEnds()
{
	const QByteArray file = wholeFile(kKey);
	QVERIFY(showsTheKey(file, kKey));
	for (qsizetype size = 0; size <= file.size(); ++size) {
		QVERIFY2(!showsTheKey(withoutApiKeys(file.left(size)), kKey), qPrintable(QString::number(size)));
	}
	// What is whole stays whole.
	QJsonObject json = QJsonDocument::fromJson(withoutApiKeys(file)).object();
	QCOMPARE(json, QJsonDocument::fromJson(wholeFile({})).object());
}

/** Keys are known by how they begin where there is no name before them. */
void ApiKeyTextTest::noKeyIsLeftWhereverAFileBegins()
{
	const QByteArray file = wholeFile("tak_live_" + kKey);
	for (qsizetype begin = 0; begin <= file.indexOf("tak_live_"); ++begin) {
		QVERIFY2(!showsTheKey(withoutApiKeys(file.mid(begin)), kKey), qPrintable(QString::number(begin)));
	}
}

void ApiKeyTextTest::noKeyIsLeftWhateverByteIsLostOrChanged()
{
	const QByteArray file = wholeFile("tak_live_" + kKey);
	for (qsizetype at = 0; at < file.size(); ++at) {
		QByteArray lost = file;
		lost.remove(at, 1);
		QVERIFY2(!showsTheKey(withoutApiKeys(lost), kKey), qPrintable(QString::number(at)));
		for (const char put : QByteArray("\0\"\\{}[],: \nx\xFF", 13)) {
			QByteArray changed = file;
			changed[at] = put;
			QVERIFY2(!showsTheKey(withoutApiKeys(changed), kKey), withoutApiKeys(changed).constData());
		}
	}
}

void ApiKeyTextTest::noKeyIsLeftInUtf16()
{
	const QString text = QString::fromUtf8(wholeFile(kKey));
	const QByteArray bytes(reinterpret_cast<const char *>(text.utf16()), text.size() * 2);
	QByteArray clean = withoutApiKeys(bytes);
	QVERIFY(clean.contains(QByteArray("M\0i\0c\0r\0o", 9)));
	QVERIFY(!showsTheKey(clean.replace('\0', QByteArray()), kKey));
}

QTEST_APPLESS_MAIN(ApiKeyTextTest)
#include "api-key-text-test.moc"
