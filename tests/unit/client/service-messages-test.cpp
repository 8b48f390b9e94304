// SPDX-License-Identifier: GPL-2.0-or-later
#include "client/service-messages.h"

#include <QJsonDocument>
#include <QTest>

namespace {

QJsonObject json(const char *text)
{
	QJsonParseError error;
	const QJsonDocument document = QJsonDocument::fromJson(text, &error);
	Q_ASSERT_X(document.isObject(), "json", text);
	return document.object();
}

/** Reads `text`, which has to be a message of type Message. */
template <typename Message> Message read(const char *text)
{
	const ServiceMessage message = readServiceMessage(json(text));
	const Message *wanted = std::get_if<Message>(&message);
	if (!wanted) {
		QTest::qFail(qPrintable(QStringLiteral("read as alternative %1: %2").arg(message.index()).arg(text)),
			     __FILE__, __LINE__);
		return {};
	}
	return *wanted;
}

} // namespace

class ServiceMessagesTest : public QObject {
	Q_OBJECT

private Q_SLOTS:
	void authIsCompactWithAscendingKeys()
	{
		const QJsonArray targets{QJsonObject{{"code", "es"}, {"dubbing", true}, {"captions", false}}};
		QCOMPARE(buildAuthMessage("key", "en", targets, "translated"),
			 R"({"apiKey":"key","captionMode":"translated","sourceLanguage":"en",)"
			 R"("targetLanguages":[{"captions":false,"code":"es","dubbing":true}],"type":"auth"})");
		QCOMPARE(buildAuthMessage("", "", {}, ""),
			 R"({"apiKey":"","captionMode":"","sourceLanguage":"","targetLanguages":[],"type":"auth"})");
	}

	void targetsArePassedThroughUnchanged()
	{
		QCOMPARE(buildConfigUpdateMessage(QJsonArray{1, "x", QJsonObject{{"own", QJsonValue::Null}}},
						  "original"),
			 R"({"captionMode":"original","targetLanguages":[1,"x",{"own":null}],"type":"config_update"})");
	}

	void configUpdateIsCompactWithAscendingKeys()
	{
		const QJsonArray targets{QJsonObject{{"code", "fr"}, {"dubbing", false}, {"captions", true}}};
		QCOMPARE(
			buildConfigUpdateMessage(targets, "original"),
			R"({"captionMode":"original","targetLanguages":[{"captions":true,"code":"fr","dubbing":false}],)"
			R"("type":"config_update"})");
	}

	void stopHasItsTypeOnly() { QCOMPARE(buildStopMessage(), R"({"type":"stop"})"); }

	void textIsEscapedAndKeptAsUtf8()
	{
		const QString built = buildAuthMessage("a\"\\\n\u00e9\U0001F600", "en", {}, "translated");
		QCOMPARE(json(built.toUtf8().constData()).value("apiKey").toString(),
			 QStringLiteral("a\"\\\n\u00e9\U0001F600"));
		QVERIFY(!built.contains('\n'));
	}

	void authOk()
	{
		const auto message = read<AuthOkMessage>(
			R"({"type":"auth_ok","maxTargetLanguages":3,"limits":{"a":1},"voiceProfile":{"b":"c"}})");
		QCOMPARE(message.maxTargetLanguages, 3);
		QCOMPARE(message.limits, (QJsonObject{{"a", 1}}));
		QCOMPARE(message.voiceProfile, (QJsonObject{{"b", "c"}}));
	}

	void authOkWithoutMembers()
	{
		const auto message = read<AuthOkMessage>(R"({"type":"auth_ok"})");
		QCOMPARE(message.maxTargetLanguages, 0);
		QVERIFY(message.limits.isEmpty());
		QVERIFY(message.voiceProfile.isEmpty());
	}

	void authErrorFallsBackFromErrorToReasonToUnknown_data()
	{
		QTest::addColumn<QByteArray>("text");
		QTest::addColumn<QString>("error");
		const auto row = [](const char *text, const char *error) {
			QTest::newRow(text) << QByteArray(text) << QString(error);
		};
		row(R"({"type":"auth_error","error":"expired","reason":"other"})", "expired");
		row(R"({"type":"auth_error","reason":"other"})", "other");
		row(R"({"type":"auth_error"})", "Unknown auth error");
		row(R"({"type":"auth_error","error":5,"reason":"other"})", "other");
		row(R"({"type":"auth_error","error":{"code":1},"reason":null})", "Unknown auth error");
		row(R"({"type":"auth_error","error":"","reason":"other"})", "");
	}
	void authErrorFallsBackFromErrorToReasonToUnknown()
	{
		QFETCH(QByteArray, text);
		QFETCH(QString, error);
		QCOMPARE(read<AuthErrorMessage>(text.constData()).error, error);
	}

	void transcripts()
	{
		QCOMPARE(read<TranscriptInterimMessage>(R"({"type":"transcript_interim","text":"hel"})").text, "hel");
		QCOMPARE(read<TranscriptInterimMessage>(R"({"type":"transcript_interim"})").text, "");
		const auto message = read<TranscriptFinalMessage>(
			R"({"type":"transcript_final","text":"hello","translations":{"es":"hola","odd":[1]}})");
		QCOMPARE(message.text, "hello");
		QCOMPARE(message.translations, json(R"({"es":"hola","odd":[1]})"));
		const auto empty = read<TranscriptFinalMessage>(R"({"type":"transcript_final"})");
		QCOMPARE(empty.text, "");
		QVERIFY(empty.translations.isEmpty());
	}

	void caption()
	{
		const auto message = read<CaptionMessage>(
			R"({"type":"caption","language":"es","text":"hola","duration":2.5,"clipId":9})");
		QCOMPARE(message.language, "es");
		QCOMPARE(message.text, "hola");
		QCOMPARE(message.duration, 2.5);
		QCOMPARE(message.clipId, 9);
		const auto empty = read<CaptionMessage>(R"({"type":"caption"})");
		QCOMPARE(empty.language, "");
		QCOMPARE(empty.text, "");
		QCOMPARE(empty.duration, 0.0);
		QCOMPARE(empty.clipId, 0);
	}

	void captionClear() { read<CaptionClearMessage>(R"({"type":"caption_clear","language":"es"})"); }

	void ttsStart()
	{
		const auto message =
			read<TtsStartMessage>(R"({"type":"tts_start","language":"es","clipId":4,"sampleRate":22050})");
		QCOMPARE(message.language, "es");
		QCOMPARE(message.clipId, 4);
		QCOMPARE(message.sampleRate, 22050);
	}

	void ttsStartWithoutSampleRateMeans24000Hz()
	{
		const auto message = read<TtsStartMessage>(R"({"type":"tts_start"})");
		QCOMPARE(message.language, "");
		QCOMPARE(message.clipId, 0);
		QCOMPARE(message.sampleRate, 24000);
	}

	void ttsEnd()
	{
		QCOMPARE(read<TtsEndMessage>(R"({"type":"tts_end","language":"es"})").language, "es");
		QCOMPARE(read<TtsEndMessage>(R"({"type":"tts_end"})").language, "");
	}

	void limits()
	{
		const auto warning = read<LimitWarningMessage>(
			R"({"type":"limit_warning","feature":"dubbing","minutesRemaining":5})");
		QCOMPARE(warning.feature, "dubbing");
		QCOMPARE(warning.minutesRemaining, 5);
		const auto empty = read<LimitWarningMessage>(R"({"type":"limit_warning"})");
		QCOMPARE(empty.feature, "");
		QCOMPARE(empty.minutesRemaining, 0);
		QCOMPARE(read<LimitReachedMessage>(R"({"type":"limit_reached","feature":"captions"})").feature,
			 "captions");
		QCOMPARE(read<LimitReachedMessage>(R"({"type":"limit_reached"})").feature, "");
	}

	void sessionEnded()
	{
		const auto message = read<SessionEndedMessage>(
			R"({"type":"session_ended","usage":{"captionMinutes":1.5,"dubbedMinutes":0.25}})");
		QCOMPARE(message.captionMinutes, 1.5);
		QCOMPARE(message.dubbedMinutes, 0.25);
		const auto empty = read<SessionEndedMessage>(R"({"type":"session_ended"})");
		QCOMPARE(empty.captionMinutes, 0.0);
		QCOMPARE(empty.dubbedMinutes, 0.0);
	}

	void unknownTypes_data()
	{
		QTest::addColumn<QByteArray>("text");
		QTest::addColumn<QString>("type");
		const auto row = [](const char *text, const char *type) {
			QTest::newRow(text) << QByteArray(text) << QString(type);
		};
		row(R"({"type":"pong"})", "pong");
		row(R"({"type":"Auth_ok"})", "Auth_ok");
		row(R"({"type":"CAPTION"})", "CAPTION");
		row(R"({"type":"auth_ok "})", "auth_ok ");
		row(R"({"type":5})", "");
		row(R"({})", "");
		row(R"({"Type":"auth_ok"})", "");
	}
	void unknownTypes()
	{
		QFETCH(QByteArray, text);
		QFETCH(QString, type);
		QCOMPARE(read<UnknownMessage>(text.constData()).type, type);
	}

	void membersOfAnotherTypeCountAsMissing()
	{
		const auto ok = read<AuthOkMessage>(
			R"({"type":"auth_ok","maxTargetLanguages":"3","limits":[1],"voiceProfile":7})");
		QCOMPARE(ok.maxTargetLanguages, 0);
		QVERIFY(ok.limits.isEmpty());
		QVERIFY(ok.voiceProfile.isEmpty());

		const auto clip =
			read<TtsStartMessage>(R"({"type":"tts_start","language":7,"clipId":"4","sampleRate":"22050"})");
		QCOMPARE(clip.language, "");
		QCOMPARE(clip.clipId, 0);
		QCOMPARE(clip.sampleRate, 24000);

		const auto caption = read<CaptionMessage>(
			R"({"type":"caption","language":[],"text":{},"duration":"2","clipId":true})");
		QCOMPARE(caption.language, "");
		QCOMPARE(caption.text, "");
		QCOMPARE(caption.duration, 0.0);
		QCOMPARE(caption.clipId, 0);

		const auto ended = read<SessionEndedMessage>(R"({"type":"session_ended","usage":[1,2]})");
		QCOMPARE(ended.captionMinutes, 0.0);
	}

	void numbersThatAreNoIntegersCountAsMissing()
	{
		QCOMPARE(read<CaptionMessage>(R"({"type":"caption","clipId":3.5})").clipId, 0);
		QCOMPARE(read<CaptionMessage>(R"({"type":"caption","clipId":3.0})").clipId, 3);
		QCOMPARE(read<CaptionMessage>(R"({"type":"caption","clipId":-1})").clipId, -1);
		QCOMPARE(read<TtsStartMessage>(R"({"type":"tts_start","sampleRate":1e300})").sampleRate, 24000);
		QCOMPARE(read<TtsStartMessage>(R"({"type":"tts_start","sampleRate":2147483648})").sampleRate, 24000);
	}
};

QTEST_APPLESS_MAIN(ServiceMessagesTest)
#include "service-messages-test.moc"
