// SPDX-License-Identifier: GPL-2.0-or-later
#include "client/ws-client.h"

#include "log-capture.h"
#include "loopback-service.h"
#include "ws-client-session.h"

#include <QJsonDocument>
#include <QSignalSpy>
#include <QTest>
#include <QTimer>
#include <QWebSocket>

namespace {

constexpr const char *kLostLine = "[talvora-obs] WebSocket disconnected unexpectedly — scheduling reconnect";

} // namespace

/** What the client makes of the service's text messages, and what it says itself. */
class WSClientTest : public QObject {
	Q_OBJECT

private Q_SLOTS:
	void authOkWithoutALimitReportsZero()
	{
		LoopbackService service;
		WSClient client;
		QSignalSpy succeeded(&client, &WSClient::authSucceeded);
		QVERIFY(authenticate(client, service));
		QCOMPARE(succeeded.size(), 1);
		QCOMPARE(succeeded.first(), (QVariantList{QJsonObject(), QJsonObject(), 0}));
	}

	void authOkReportsProfileLimitsAndLanguageLimit()
	{
		LoopbackService service;
		WSClient client;
		QSignalSpy succeeded(&client, &WSClient::authSucceeded);
		QStringList order;
		connect(&client, &WSClient::stateChanged, &client, [&](WsState state) {
			if (state == WsState::Authenticated) {
				order.append(client.sendTimer->isActive() ? "state after timer" : "state");
			}
		});
		connect(&client, &WSClient::authSucceeded, &client,
			[&] { order.append(client.sendTimer->isActive() ? "timer, succeeded" : "succeeded"); });
		start(client, service.url());
		QTRY_COMPARE(service.texts.size(), 1);
		service.send(R"({"type":"auth_ok","maxTargetLanguages":3,"limits":{"a":1},"voiceProfile":{"b":2}})");
		QTRY_COMPARE(succeeded.size(), 1);
		QCOMPARE(succeeded.first(), (QVariantList{QJsonObject{{"b", 2}}, QJsonObject{{"a", 1}}, 3}));
		QCOMPARE(order, (QStringList{"state", "timer, succeeded"}));
	}

	void authErrorClosesNormallyAndDoesNotReconnect_data()
	{
		QTest::addColumn<QString>("message");
		QTest::addColumn<QString>("text");
		QTest::newRow("error") << R"({"type":"auth_error","error":"bad key","reason":"x"})" << "bad key";
		QTest::newRow("reason") << R"({"type":"auth_error","reason":"expired"})" << "expired";
		QTest::newRow("neither") << R"({"type":"auth_error"})" << "Unknown auth error";
		QTest::newRow("place marker") << R"({"type":"auth_error","error":"100 %1"})" << "100 %1";
	}
	void authErrorClosesNormallyAndDoesNotReconnect()
	{
		QFETCH(QString, message);
		QFETCH(QString, text);
		const LogCapture log;
		LoopbackService service;
		WSClient client;
		const States states(client);
		QSignalSpy errors(&client, &WSClient::errorOccurred);
		start(client, service.url());
		QTRY_COMPARE(service.texts.size(), 1);
		service.send(message);
		QTRY_COMPARE(client.state(), WsState::Disconnected);
		QTRY_COMPARE(service.closeCodes, QList<int>{1000});
		QTRY_COMPARE(errors.size(), 1);
		QCOMPARE(errors.first().first().toString(), "Auth failed: " + text);
		QCOMPARE(log.lines(LOG_ERROR), QStringList{"[talvora-obs] WSClient: auth failed: " + text});
		QCOMPARE(states.seen, (QList<int>{kConnecting, kConnected, kDisconnected}));
		QVERIFY(!client.reconnectTimer->isActive());
		QVERIFY(!log.contains(LOG_WARNING, kLostLine));
		QCOMPARE(service.peer()->closeReason(), QString());
	}

	void transcriptsArePassedOn()
	{
		LoopbackService service;
		WSClient client;
		QVERIFY(authenticate(client, service));
		QSignalSpy interim(&client, &WSClient::transcriptInterim);
		QSignalSpy final(&client, &WSClient::transcriptFinal);
		service.send(R"({"type":"transcript_interim","text":"hel"})");
		service.send(R"({"type":"transcript_final","text":"hello","translations":{"es":"hola","odd":[1]}})");
		QTRY_COMPARE(final.size(), 1);
		QCOMPARE(interim.size(), 1);
		QCOMPARE(interim.first(), QVariantList{"hel"});
		const QJsonObject translations{{"es", "hola"}, {"odd", QJsonArray{1}}};
		QCOMPARE(final.first(), (QVariantList{"hello", translations}));
	}

	void captionsArePassedOn()
	{
		LoopbackService service;
		WSClient client;
		QVERIFY(authenticate(client, service));
		QSignalSpy captions(&client, &WSClient::captionUpdated);
		service.send(R"({"type":"caption","language":"es","text":"hola","duration":2.5,"clipId":9})");
		service.send(R"({"type":"caption"})");
		QTRY_COMPARE(captions.size(), 2);
		QCOMPARE(captions[0], (QVariantList{"es", "hola", 2.5, 9}));
		QCOMPARE(captions[1], (QVariantList{"", "", 0.0, 0}));
	}

	void captionClearCausesNoSignal()
	{
		const LogCapture log;
		WSClient client;
		const AllSignals any(client);
		QCOMPARE(any.kinds(), 11);
		client.onTextMessageReceived(R"({"type":"caption_clear","language":"es"})");
		QCOMPARE(any.total(), 0);
		QVERIFY(log.ownLines().isEmpty());
	}

	void limitsArePassedOnAndChangeNothingElse()
	{
		LoopbackService service;
		WSClient client;
		QVERIFY(authenticate(client, service));
		QSignalSpy warning(&client, &WSClient::limitWarning);
		QSignalSpy reached(&client, &WSClient::limitReached);
		service.send(R"({"type":"limit_warning","feature":"dubbing","minutesRemaining":5})");
		service.send(R"({"type":"limit_reached","feature":"captions"})");
		QTRY_COMPARE(reached.size(), 1);
		QCOMPARE(warning.first(), (QVariantList{"dubbing", 5}));
		QCOMPARE(reached.first(), QVariantList{"captions"});
		QCOMPARE(client.state(), WsState::Authenticated);
	}

	void sessionEndedThenAServerCloseLeavesDisconnectedWithoutReconnect()
	{
		const LogCapture log;
		LoopbackService service;
		WSClient client;
		QVERIFY(authenticate(client, service));
		const States states(client);
		QSignalSpy ended(&client, &WSClient::sessionEnded);
		QStringList order;
		connect(&client, &WSClient::sessionEnded, &client, [&] { order.append("ended"); });
		connect(&client, &WSClient::stateChanged, &client, [&] { order.append("state"); });
		service.send(R"({"type":"session_ended","usage":{"captionMinutes":1.5,"dubbedMinutes":0.25}})");
		QTRY_COMPARE(ended.size(), 1);
		QCOMPARE(ended.first(), (QVariantList{1.5, 0.25}));
		QCOMPARE(order, (QStringList{"ended", "state"}));
		QCOMPARE(client.state(), WsState::Disconnected);
		QVERIFY2(client.socket->isValid(), "the client leaves the closing to the service");

		service.peer()->close();
		QTRY_COMPARE(client.socket->state(), QAbstractSocket::UnconnectedState);
		QCOMPARE(states.seen, QList<int>{kDisconnected});
		QVERIFY(!client.reconnectTimer->isActive());
		QVERIFY(!client.sendTimer->isActive());
		QVERIFY(log.lines(LOG_WARNING).isEmpty());
	}

	void sessionEndedWithoutUsageReportsZero()
	{
		WSClient client;
		QSignalSpy ended(&client, &WSClient::sessionEnded);
		client.onTextMessageReceived(R"({"type":"session_ended"})");
		QCOMPARE(ended.first(), (QVariantList{0.0, 0.0}));
	}

	void anUnknownTypeIsOnlyLogged_data()
	{
		QTest::addColumn<QString>("type");
		QTest::newRow("unknown") << "pong";
		QTest::newRow("other letter case") << "Auth_Ok";
		QTest::newRow("printf language") << "%s%n";
		QTest::newRow("empty") << "";
	}
	void anUnknownTypeIsOnlyLogged()
	{
		QFETCH(QString, type);
		const LogCapture log;
		WSClient client;
		const AllSignals any(client);
		client.processJsonMessage({{"type", type}});
		QCOMPARE(any.total(), 0);
		QCOMPARE(log.lines(LOG_DEBUG), QStringList{"[talvora-obs] WSClient: unknown message type: " + type});
		QCOMPARE(log.ownLines().size(), 1);
	}

	void textThatIsNoJsonObjectIsLoggedAndDropped_data()
	{
		QTest::addColumn<QString>("text");
		QTest::newRow("nothing") << "";
		QTest::newRow("word") << "hello";
		QTest::newRow("cut off") << R"({"type":"auth_ok")";
		QTest::newRow("two objects") << "{} {}";
		QTest::newRow("array") << R"([{"type":"auth_ok"}])";
	}
	void textThatIsNoJsonObjectIsLoggedAndDropped()
	{
		QFETCH(QString, text);
		const LogCapture log;
		LoopbackService service;
		WSClient client;
		QVERIFY(authenticate(client, service));
		const States states(client);
		service.send(text);
		QVERIFY(delivered(client, service));
		// The wording is the parser's, which differs between versions of Qt.
		QJsonParseError error;
		QJsonDocument::fromJson(text.toUtf8(), &error);
		QCOMPARE(log.lines(LOG_WARNING),
			 QStringList{"[talvora-obs] WSClient: bad JSON: " + error.errorString()});
		QVERIFY(states.seen.isEmpty());
	}

	void aDocumentThatIsNoObjectIsLoggedWithTheParsersNoErrorText()
	{
		const LogCapture log;
		WSClient client;
		client.onTextMessageReceived("[]");
		QCOMPARE(log.lines(LOG_WARNING), QStringList{"[talvora-obs] WSClient: bad JSON: no error occurred"});
	}

	void hostileTextNeitherCrashesNorCloses()
	{
		const LogCapture log;
		LoopbackService service;
		WSClient client;
		QVERIFY(authenticate(client, service));
		service.send(QString(100000, '['));
		service.send(QString(100000, '{'));
		service.send(QStringLiteral(R"({"a":)").repeated(5000));
		service.send(QString(QChar(0)));
		service.send(QStringLiteral("{\"type\":\"\\ud800\"}"));
		service.send(R"({"type":"caption","text":null,"language":{},"duration":1e999,"clipId":99999999999})");
		service.send(R"({"type":"auth_ok","limits":null})");
		service.send(R"({"type":["auth_ok"]})");
		service.send("{\"type\":\"" + QString(1000000, 'x') + "\"}");
		QVERIFY(delivered(client, service));
		QCOMPARE(client.state(), WsState::Authenticated);
	}

	void theLongestMessageIsTakenWhole()
	{
		LoopbackService service;
		WSClient client;
		QVERIFY(authenticate(client, service));
		QByteArray received;
		connect(&client, &WSClient::ttsAudioReady, &client,
			[&](const QString &, int, const QByteArray &pcm, int) { received.append(pcm); });
		client.onTextMessageReceived(R"({"type":"tts_start","language":"es","clipId":1})");
		const QByteArray speech(32 * 1024 * 1024, 'x');
		service.sendFrame(speech);
		QTRY_COMPARE_WITH_TIMEOUT(received.size(), speech.size(), 20000);
		QCOMPARE(client.state(), WsState::Authenticated);
		QVERIFY(received == speech);
	}

	void aLongerMessageEndsTheConnectionAndIsRetried()
	{
		LoopbackService service;
		WSClient client;
		QVERIFY(authenticate(client, service));
		QSignalSpy pieces(&client, &WSClient::ttsAudioReady);
		client.onTextMessageReceived(R"({"type":"tts_start","language":"es","clipId":1})");
		service.sendFrame(QByteArray(32 * 1024 * 1024 + 1, 'x'));
		QTRY_COMPARE_WITH_TIMEOUT(client.state(), WsState::Reconnecting, 20000);
		QVERIFY(pieces.isEmpty());
	}

	void theLongestTextIsTakenAndALongerOneEndsTheConnection()
	{
		const LogCapture log;
		LoopbackService service;
		WSClient client;
		QVERIFY(authenticate(client, service));
		QSignalSpy interim(&client, &WSClient::transcriptInterim);
		QSignalSpy errors(&client, &WSClient::errorOccurred);
		const QString frame = R"({"type":"transcript_interim","text":"%1"})";
		const QString longest = frame.arg(QString(1024 * 1024 - frame.size() + 2, 'x'));
		QCOMPARE(longest.size(), 1024 * 1024);
		service.send(longest);
		QTRY_COMPARE(interim.size(), 1);
		QCOMPARE(client.state(), WsState::Authenticated);

		// Bytes are counted, and this has fewer letters.
		QString longer = longest;
		longer[longer.size() - 4] = QChar(0xe9);
		service.send(longer);
		QTRY_COMPARE(client.state(), WsState::Reconnecting);
		QCOMPARE(interim.size(), 1);
		QTRY_COMPARE(service.closeCodes, QList<int>{1009});
		QCOMPARE(errors.first().first().toString(), "Error.ConnectionClosed: Received message is too big.");
		QVERIFY(log.contains(LOG_WARNING,
				     "[talvora-obs] WebSocket closed with code 1009: Received message is too big."));
	}

	void configUpdateIsSentWhileAuthenticated()
	{
		LoopbackService service;
		WSClient client;
		QVERIFY(authenticate(client, service));
		client.updateConfig(targets("fr"), "original");
		QTRY_COMPARE(service.texts.size(), 2);
		QCOMPARE(
			service.texts.last(),
			R"({"captionMode":"original","targetLanguages":[{"captions":true,"code":"fr","dubbing":true}],)"
			R"("type":"config_update"})");
	}

	void configUpdateBeforeAuthOkIsKeptForTheNextAuth()
	{
		LoopbackService service;
		WSClient client;
		start(client, service.url());
		QTRY_COMPARE(service.texts.size(), 1);
		QCOMPARE(client.state(), WsState::Connected);
		client.updateConfig(targets("fr"), "original");
		service.peer()->abort();
		QTRY_COMPARE(client.state(), WsState::Reconnecting);
		reconnectNow(client);
		QTRY_COMPARE(service.texts.size(), 2);
		QCOMPARE(service.texts.last(), authText(kKey, "en", "fr", "original"));
	}

	void configUpdateBeforeAuthOkSendsNothing()
	{
		LoopbackService service;
		WSClient client;
		start(client, service.url());
		QTRY_COMPARE(service.texts.size(), 1);
		QCOMPARE(client.state(), WsState::Connected);
		client.updateConfig(targets("fr"), "original");
		service.send(kAuthOk);
		QTRY_COMPARE(client.state(), WsState::Authenticated);
		// What is sent in order arrives in order, so with this one anything sent before it would be here.
		client.updateConfig(targets("de"), "translated");
		QTRY_VERIFY(service.texts.size() >= 2);
		QCOMPARE(service.texts,
			 (QStringList{authText(kKey, "en", "es", "translated"),
				      R"({"captionMode":"translated","targetLanguages":[{"captions":true,"code":"de",)"
				      R"("dubbing":true}],"type":"config_update"})"}));
	}

	void messagesBeforeAuthOkAreHandledAllTheSame()
	{
		LoopbackService service;
		WSClient client;
		QSignalSpy captions(&client, &WSClient::captionUpdated);
		start(client, service.url());
		QTRY_COMPARE(service.texts.size(), 1);
		service.send(R"({"type":"caption","language":"es","text":"hola"})");
		QTRY_COMPARE(captions.size(), 1);
		QCOMPARE(client.state(), WsState::Connected);
	}
};

QTEST_GUILESS_MAIN(WSClientTest)
#include "ws-client-messages-test.moc"
