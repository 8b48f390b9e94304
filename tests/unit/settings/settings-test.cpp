// SPDX-License-Identifier: GPL-2.0-or-later
#include "settings/settings.h"

#include <QJsonDocument>
#include <QTest>

#include <limits>

class SettingsTest : public QObject {
	Q_OBJECT

private Q_SLOTS:
	void defaults();
	void emptySelectionGivesEmptyListsAndArray();
	void listsFollowTheFlagsInAscendingOrder();
	void jsonOfTargetsHasExactlyThreeMembersEach();
	void savedDefaultsHaveTheirLiteralValues();
	void onlyAutoConnectLeavesEverythingElseAtItsDefault();
	void bareCodesShareTheFlagsOfTheTopLevel_data();
	void bareCodesShareTheFlagsOfTheTopLevel();
	void bareCodesAreSavedAsObjects();
	void elementsThatAreNoObjectsGetTheEmptyCode();
	void laterElementOfTheSameCodeWins();
	void targetFlagsHaveTheirOwnDefaults();
	void missingTargetsEmptyTheSelection();
	void otherTypesGiveTheDefault_data();
	void otherTypesGiveTheDefault();
	void colours_data();
	void colours();
	void missingFontKeepsThePresentOne();
	void valuesAreNeitherCheckedNorClamped();
	void numbersBeyondAFloatBecomeItsLargest();
	void everythingSurvivesARoundTrip();
};

static QJsonObject parse(const char *json)
{
	const QJsonDocument document = QJsonDocument::fromJson(json);
	Q_ASSERT(document.isObject());
	return document.object();
}

static Settings read(const char *json)
{
	Settings settings;
	settings.readJson(parse(json));
	return settings;
}

void SettingsTest::defaults()
{
	const Settings settings;
	QCOMPARE(settings.apiKey, QString());
	QCOMPARE(settings.audioSource, QString());
	QCOMPARE(settings.sourceLanguage, QStringLiteral("en"));
	QVERIFY(settings.languageTargets.isEmpty());
	QCOMPARE(settings.captionMode, QStringLiteral("translated"));
	QCOMPARE(settings.captionAlignment, QStringLiteral("center"));
	QCOMPARE(settings.captionTextColor, QColor(255, 255, 255, 255));
	QCOMPARE(settings.captionBgColor, QColor(0, 0, 0, 0));
	QCOMPARE(settings.captionOpacity, 100);
	QCOMPARE(settings.captionFont.family(), QStringLiteral("-apple-system"));
	QCOMPARE(settings.captionFont.pointSize(), 40);
	QCOMPARE(static_cast<int>(settings.captionFont.weight()), 600);
	QVERIFY(!settings.captionFont.italic());
	QCOMPARE(settings.duckingLevel, 0.2f);
	QCOMPARE(settings.ttsVolume, 1.0f);
	QVERIFY(!settings.muteOriginal);
	QVERIFY(!settings.autoConnect);
	QVERIFY(!settings.dockVisible);
}

void SettingsTest::emptySelectionGivesEmptyListsAndArray()
{
	const Settings settings;
	QVERIFY(settings.targetLanguageCodes().isEmpty());
	QVERIFY(settings.dubbingLanguages().isEmpty());
	QVERIFY(settings.captionLanguages().isEmpty());
	QCOMPARE(settings.targetLanguagesJson(), QJsonArray());
}

void SettingsTest::listsFollowTheFlagsInAscendingOrder()
{
	Settings settings;
	settings.languageTargets[QStringLiteral("fr")] = {.dubbing = true, .captions = false};
	settings.languageTargets[QStringLiteral("de")] = {.dubbing = false, .captions = true};
	QCOMPARE(settings.dubbingLanguages(), QStringList{QStringLiteral("fr")});
	QCOMPARE(settings.captionLanguages(), QStringList{QStringLiteral("de")});
	QCOMPARE(settings.targetLanguageCodes(), (QStringList{QStringLiteral("de"), QStringLiteral("fr")}));

	settings.languageTargets[QStringLiteral("es")] = {.dubbing = false, .captions = false};
	QCOMPARE(settings.targetLanguageCodes(),
		 (QStringList{QStringLiteral("de"), QStringLiteral("es"), QStringLiteral("fr")}));
}

void SettingsTest::jsonOfTargetsHasExactlyThreeMembersEach()
{
	Settings settings;
	settings.languageTargets[QStringLiteral("pt")] = {.dubbing = false, .captions = false};
	settings.languageTargets[QStringLiteral("es")] = {.dubbing = true, .captions = false};
	QCOMPARE(QJsonDocument(settings.targetLanguagesJson()).toJson(QJsonDocument::Compact),
		 QByteArray(R"([{"captions":false,"code":"es","dubbing":true},)"
			    R"({"captions":false,"code":"pt","dubbing":false}])"));
}

void SettingsTest::savedDefaultsHaveTheirLiteralValues()
{
	const QJsonObject json = Settings().toJson();
	QStringList keys = json.keys();
	keys.sort();
	QCOMPARE(
		keys.join(QLatin1Char(' ')),
		QStringLiteral("apiKey audioSource autoConnect captionAlignment captionBgColor captionFont captionMode "
			       "captionOpacity captionTextColor dockVisible duckingLevel muteOriginal sourceLanguage "
			       "targetLanguages ttsVolume"));
	QCOMPARE(json[u"apiKey"], QJsonValue(QString()));
	QCOMPARE(json[u"audioSource"], QJsonValue(QString()));
	QCOMPARE(json[u"sourceLanguage"], QJsonValue(QStringLiteral("en")));
	QCOMPARE(json[u"targetLanguages"], QJsonValue(QJsonArray()));
	QCOMPARE(json[u"duckingLevel"], QJsonValue(0.20000000298023224));
	QCOMPARE(json[u"ttsVolume"], QJsonValue(1.0));
	QCOMPARE(json[u"muteOriginal"], QJsonValue(false));
	QCOMPARE(json[u"autoConnect"], QJsonValue(false));
	QCOMPARE(json[u"dockVisible"], QJsonValue(false));
	QCOMPARE(json[u"captionMode"], QJsonValue(QStringLiteral("translated")));
	QCOMPARE(json[u"captionAlignment"], QJsonValue(QStringLiteral("center")));
	QCOMPARE(json[u"captionTextColor"], QJsonValue(QStringLiteral("#ffffffff")));
	QCOMPARE(json[u"captionBgColor"], QJsonValue(QStringLiteral("#00000000")));
	QCOMPARE(json[u"captionOpacity"], QJsonValue(100));
	QVERIFY(json[u"captionFont"].toString().startsWith(QStringLiteral("-apple-system,40,-1,5,600,0,")));
}

void SettingsTest::onlyAutoConnectLeavesEverythingElseAtItsDefault()
{
	Settings expected;
	expected.autoConnect = true;
	QCOMPARE(read(R"({"autoConnect": true})").toJson(), expected.toJson());
}

void SettingsTest::bareCodesShareTheFlagsOfTheTopLevel_data()
{
	QTest::addColumn<QByteArray>("flags");
	QTest::addColumn<bool>("dubbing");
	QTest::addColumn<bool>("captions");
	QTest::newRow("captions given") << QByteArray(R"("captions": true)") << true << true;
	QTest::newRow("none given") << QByteArray(R"("apiKey": "")") << true << false;
	QTest::newRow("both given") << QByteArray(R"("captions": true, "dubbing": false)") << false << true;
}

void SettingsTest::bareCodesShareTheFlagsOfTheTopLevel()
{
	QFETCH(QByteArray, flags);
	QFETCH(bool, dubbing);
	QFETCH(bool, captions);
	const Settings settings = read(R"({"targetLanguages": ["es", "fr"], )" + flags + "}");
	const LanguageTarget expected{dubbing, captions};
	QCOMPARE(settings.targetLanguageCodes(), (QStringList{QStringLiteral("es"), QStringLiteral("fr")}));
	QVERIFY(settings.languageTargets[QStringLiteral("es")] == expected);
	QVERIFY(settings.languageTargets[QStringLiteral("fr")] == expected);
}

void SettingsTest::bareCodesAreSavedAsObjects()
{
	const QJsonObject saved = read(R"({"targetLanguages": ["es", "fr"], "captions": true})").toJson();
	QCOMPARE(QJsonDocument(saved[u"targetLanguages"].toArray()).toJson(QJsonDocument::Compact),
		 QByteArray(R"([{"captions":true,"code":"es","dubbing":true},)"
			    R"({"captions":true,"code":"fr","dubbing":true}])"));
	QVERIFY(!saved.contains(u"captions"));
	QVERIFY(!saved.contains(u"dubbing"));
}

void SettingsTest::elementsThatAreNoObjectsGetTheEmptyCode()
{
	const Settings settings =
		read(R"({"targetLanguages": [{"code": "es", "dubbing": false, "captions": true}, "fr"]})");
	QCOMPARE(settings.targetLanguageCodes(), (QStringList{QString(), QStringLiteral("es")}));
	QVERIFY((settings.languageTargets[QString()] == LanguageTarget{true, false}));
	// It is kept, also by the next save.
	QCOMPARE(settings.toJson()[u"targetLanguages"].toArray().size(), 2);
}

void SettingsTest::laterElementOfTheSameCodeWins()
{
	const Settings settings = read(R"({"targetLanguages": [{"code": "es", "dubbing": true, "captions": true},
							      {"code": "es", "dubbing": false}]})");
	QCOMPARE(settings.languageTargets.size(), 1);
	QVERIFY((settings.languageTargets[QStringLiteral("es")] == LanguageTarget{false, false}));
}

void SettingsTest::targetFlagsHaveTheirOwnDefaults()
{
	const Settings settings = read(R"({"targetLanguages": [{"code": "es"}], "dubbing": false, "captions": true})");
	QVERIFY((settings.languageTargets[QStringLiteral("es")] == LanguageTarget{true, false}));
}

void SettingsTest::missingTargetsEmptyTheSelection()
{
	Settings settings;
	settings.languageTargets[QStringLiteral("es")] = {true, true};
	settings.readJson({});
	QVERIFY(settings.languageTargets.isEmpty());
}

void SettingsTest::otherTypesGiveTheDefault_data()
{
	QTest::addColumn<QByteArray>("json");
	QTest::newRow("strings") << QByteArray(
		R"({"apiKey": 1, "audioSource": [], "sourceLanguage": null, "captionMode": {}, "captionAlignment": true,
		    "captionTextColor": 5, "captionBgColor": false})");
	QTest::newRow("numbers") << QByteArray(R"({"duckingLevel": "0.5", "ttsVolume": null, "captionOpacity": "50"})");
	QTest::newRow("booleans") << QByteArray(R"({"muteOriginal": 1, "autoConnect": "true", "dockVisible": []})");
	QTest::newRow("targets") << QByteArray(R"({"targetLanguages": "es"})");
	QTest::newRow("fractional opacity") << QByteArray(R"({"captionOpacity": 50.5})");
}

void SettingsTest::otherTypesGiveTheDefault()
{
	QFETCH(QByteArray, json);
	QCOMPARE(read(json).toJson(), Settings().toJson());
}

void SettingsTest::colours_data()
{
	QTest::addColumn<QString>("text");
	QTest::addColumn<QColor>("colour");
	QTest::newRow("three digits") << QStringLiteral("#f0a") << QColor(0xff, 0x00, 0xaa);
	QTest::newRow("six digits") << QStringLiteral("#10A0ff") << QColor(0x10, 0xa0, 0xff);
	QTest::newRow("eight digits, alpha first") << QStringLiteral("#8010a0ff") << QColor(0x10, 0xa0, 0xff, 0x80);
	QTest::newRow("name") << QStringLiteral("steelblue") << QColor(70, 130, 180);
	QTest::newRow("not a colour") << QStringLiteral("#xyz") << QColor();
	QTest::newRow("empty") << QString() << QColor();
}

void SettingsTest::colours()
{
	QFETCH(QString, text);
	QFETCH(QColor, colour);
	Settings settings;
	settings.readJson({{QStringLiteral("captionTextColor"), text}, {QStringLiteral("captionBgColor"), text}});
	QCOMPARE(settings.captionTextColor.isValid(), colour.isValid());
	QCOMPARE(settings.captionTextColor, colour);
	QCOMPARE(settings.captionBgColor, colour);
}

void SettingsTest::missingFontKeepsThePresentOne()
{
	Settings settings;
	settings.captionFont = QFont(QStringLiteral("Serif"), 12);
	settings.readJson({});
	QCOMPARE(settings.captionFont.family(), QStringLiteral("Serif"));
	QCOMPARE(settings.captionFont.pointSize(), 12);
}

void SettingsTest::valuesAreNeitherCheckedNorClamped()
{
	const Settings settings = read(
		R"({"sourceLanguage": "xx", "duckingLevel": -3, "ttsVolume": 7.5, "captionOpacity": 900,
		    "captionMode": "loud", "captionAlignment": "up"})");
	QCOMPARE(settings.sourceLanguage, QStringLiteral("xx"));
	QCOMPARE(settings.duckingLevel, -3.0f);
	QCOMPARE(settings.ttsVolume, 7.5f);
	QCOMPARE(settings.captionOpacity, 900);
	QCOMPARE(settings.captionMode, QStringLiteral("loud"));
	QCOMPARE(settings.captionAlignment, QStringLiteral("up"));
}

void SettingsTest::numbersBeyondAFloatBecomeItsLargest()
{
	const Settings settings = read(R"({"duckingLevel": 1e300, "ttsVolume": -1e300})");
	QCOMPARE(settings.duckingLevel, std::numeric_limits<float>::max());
	QCOMPARE(settings.ttsVolume, std::numeric_limits<float>::lowest());
}

void SettingsTest::everythingSurvivesARoundTrip()
{
	Settings settings;
	settings.apiKey = QStringLiteral("tak_live_1");
	settings.audioSource = QStringLiteral("Mikro „é“ 🎤");
	settings.sourceLanguage = QStringLiteral("fil");
	settings.languageTargets[QStringLiteral("es")] = {true, false};
	settings.languageTargets[QStringLiteral("de")] = {false, true};
	settings.captionMode = QStringLiteral("original");
	settings.captionAlignment = QStringLiteral("right");
	settings.captionTextColor = QColor(1, 2, 3, 4);
	settings.captionBgColor = QColor(250, 251, 252, 253);
	settings.captionOpacity = 35;
	settings.captionFont = QFont(QStringLiteral("DejaVu Sans"), 31, QFont::Light, true);
	settings.duckingLevel = 0.35f;
	settings.ttsVolume = 0.6f;
	settings.muteOriginal = true;
	settings.autoConnect = true;
	settings.dockVisible = true;

	Settings restored;
	restored.readJson(parse(QJsonDocument(settings.toJson()).toJson()));
	QCOMPARE(restored.toJson(), settings.toJson());
	QCOMPARE(restored.duckingLevel, 0.35f);
	QCOMPARE(restored.captionFont, settings.captionFont);
	QCOMPARE(restored.audioSource, settings.audioSource);
}

QTEST_MAIN(SettingsTest)
#include "settings-test.moc"
