// SPDX-License-Identifier: GPL-2.0-or-later
#include "client/ws-client.h"

#include "deployment.h"
#include "log-capture.h"
#include "loopback-service.h"
#include "test-certificates.h"
#include "ws-client-session.h"

#include <QMutexLocker>
#include <QSignalSpy>
#include <QTest>
#include <QThread>
#include <QTimer>
#include <QUrl>
#include <QWebSocket>

#include <memory>

namespace {

constexpr const char *kConnectedLine = "[talvora-obs] WebSocket connected — sending auth";
constexpr const char *kLostLine = "[talvora-obs] WebSocket disconnected unexpectedly — scheduling reconnect";
constexpr const char *kGaveUpLine = "[talvora-obs] WSClient: max reconnect attempts reached — giving up";
constexpr const char *kGaveUpText = "Max reconnect attempts reached. Check your API key and internet connection.";

QString connectingLine(const QString &url)
{
	return QStringLiteral("[talvora-obs] WSClient: connecting to %1").arg(url);
}

/** Collects what Qt itself complains about while it lives. One at a time. */
class QtWarnings {
public:
	QtWarnings() : previous(qInstallMessageHandler(handle)) { collected.clear(); }
	~QtWarnings() { qInstallMessageHandler(previous); }

	QStringList lines() const
	{
		const QMutexLocker locker(&mutex);
		return collected;
	}

private:
	static void handle(QtMsgType, const QMessageLogContext &, const QString &text)
	{
		const QMutexLocker locker(&mutex);
		collected.append(text);
	}

	static inline QMutex mutex;
	static inline QStringList collected;
	QtMessageHandler previous;
};

} // namespace

class WSClientTest : public QObject {
	Q_OBJECT

private Q_SLOTS:
	// The object

	void statesHaveTheirNumbers()
	{
		QCOMPARE(int(WsState::Disconnected), 0);
		QCOMPARE(int(WsState::Connecting), 1);
		QCOMPARE(int(WsState::Connected), 2);
		QCOMPARE(int(WsState::Authenticated), 3);
		QCOMPARE(int(WsState::Reconnecting), 4);
		QCOMPARE(int(WsState::Disconnecting), 5);
		const WSClient client;
		QVERIFY2(QMetaType::fromType<WsState>().isRegistered(), "states travel in queued signals");
	}

	void startsDisconnectedWithTheDefaults()
	{
		const WSClient client;
		QCOMPARE(client.state(), WsState::Disconnected);
		QCOMPARE(client.serverUrl, QString(kServiceEndpoint));
		QCOMPARE(client.captionMode, "translated");
		QVERIFY(client.apiKey.isEmpty());
		QVERIFY(client.sourceLanguage.isEmpty());
		QVERIFY(client.targetLanguages.isEmpty());
		QVERIFY(client.currentTtsLanguage.isEmpty());
		QVERIFY(client.pendingTts.empty());
		QCOMPARE(client.reconnectAttempts, 0);
		QVERIFY(!client.intentionalDisconnect);
		QCOMPARE(client.audioRing.held(), size_t{0});

		QCOMPARE(client.sendTimer->interval(), 10);
		QCOMPARE(client.sendTimer->timerType(), Qt::PreciseTimer);
		QVERIFY(!client.sendTimer->isSingleShot());
		QVERIFY(!client.sendTimer->isActive());
		QCOMPARE(client.reconnectTimer->timerType(), Qt::PreciseTimer);
		QVERIFY(client.reconnectTimer->isSingleShot());
		QVERIFY(!client.reconnectTimer->isActive());

		QVERIFY(client.socket->origin().isEmpty());
		QCOMPARE(client.socket->version(), QWebSocketProtocol::Version13);
		QCOMPARE(client.socket->parent(), &client);
		QCOMPARE(client.sendTimer->parent(), &client);
		QCOMPARE(client.reconnectTimer->parent(), &client);
		QCOMPARE(client.socket->maxAllowedIncomingMessageSize(), quint64{33554432});
		QCOMPARE(client.socket->maxAllowedIncomingFrameSize(), quint64{33554432});
	}

	void theDefaultEndpointIsSecureOnPort3002()
	{
		const QUrl url(QString::fromLatin1(kServiceEndpoint));
		QCOMPARE(url.scheme(), "wss");
		QCOMPARE(url.port(), 3002);
		QCOMPARE(url.path(), "/ws/audio-pipeline");
		QVERIFY(!url.host().isEmpty());
	}

	void slotsAreCallableByName()
	{
		WSClient client;
		QVERIFY(QMetaObject::invokeMethod(&client, "disconnectFromServer", Qt::QueuedConnection));
		QVERIFY(QMetaObject::invokeMethod(&client, "updateConfig", Qt::QueuedConnection,
						  Q_ARG(QJsonArray, targets("it")), Q_ARG(QString, "original")));
		QTRY_COMPARE(client.captionMode, "original");
	}

	void settingTheSameStateEmitsNothing()
	{
		WSClient client;
		const States states(client);
		client.setState(WsState::Disconnected);
		QVERIFY(states.seen.isEmpty());
		client.setState(WsState::Connecting);
		client.setState(WsState::Connecting);
		QCOMPARE(states.seen, QList<int>{kConnecting});
		QCOMPARE(client.state(), WsState::Connecting);
	}

	// Connecting

	void connectingWithAnEmptyUrlUsesTheDefaultEndpoint()
	{
		const LogCapture log;
		WSClient client;
		client.serverUrl = "ws://elsewhere";
		start(client, QString());
		QCOMPARE(client.serverUrl, QString(kServiceEndpoint));
		QVERIFY(log.contains(LOG_INFO, connectingLine(kServiceEndpoint)));
		QCOMPARE(client.state(), WsState::Connecting);
	}

	void theOpeningRequestCarriesTheUserAgentAndNoCredential()
	{
		LoopbackService service;
		WSClient client;
		start(client, service.url());
		QTRY_COMPARE(service.requests.size(), 1);

		const QNetworkRequest own = client.buildOpenRequest();
		// Qt may keep names of headers in lower case.
		QCOMPARE(own.rawHeaderList().size(), 1);
		QCOMPARE(own.rawHeaderList().first().toLower(), "user-agent");
		QCOMPARE(own.rawHeader("User-Agent"), "Talvora-OBS-Plugin/1.0");
		QCOMPARE(own.url(), QUrl(service.url()));

		const QNetworkRequest &seen = service.requests.first();
		QCOMPARE(seen.rawHeader("User-Agent"), "Talvora-OBS-Plugin/1.0");
		QCOMPARE(seen.url().path(), "/ws/audio-pipeline");
		QVERIFY(!seen.url().hasQuery());
		for (const QByteArray &header : seen.rawHeaderList()) {
			QVERIFY2(!seen.rawHeader(header).contains(kKey), header.constData());
		}
	}

	void aSessionGoesThroughItsStatesAndLogsThem()
	{
		const LogCapture log;
		LoopbackService service;
		WSClient client;
		const States states(client);
		start(client, service.url());
		QCOMPARE(states.seen, QList<int>{kConnecting});
		QTRY_COMPARE(service.texts, QStringList{authText(kKey, "en", "es", "translated")});
		QCOMPARE(states.seen, (QList<int>{kConnecting, kConnected}));
		QVERIFY(!client.sendTimer->isActive());

		service.send(kAuthOk);
		QTRY_COMPARE(states.seen, (QList<int>{kConnecting, kConnected, kAuthenticated}));
		QVERIFY(client.sendTimer->isActive());

		client.disconnectFromServer();
		QCOMPARE(states.seen, (QList<int>{kConnecting, kConnected, kAuthenticated, kDisconnected}));
		QVERIFY(!client.sendTimer->isActive());
		QTRY_COMPARE(service.closeCodes.size(), 1);
		QCOMPARE(log.ownLines(), (QStringList{connectingLine(service.url()), kConnectedLine,
						      "[talvora-obs] WSClient: authenticated"}));
		QCOMPARE(log.lines(LOG_INFO).size(), 3);
	}

	void theCredentialIsNeverLogged()
	{
		const LogCapture log;
		LoopbackService service;
		WSClient client;
		QVERIFY(authenticate(client, service));
		service.peer()->abort();
		QTRY_COMPARE(client.state(), WsState::Reconnecting);
		client.disconnectFromServer();
		QVERIFY(log.ownLines().size() >= 5);
		QVERIFY(!log.ownLines().join('\n').contains(kKey));
	}

	void connectingWhileConnectedAbortsTheOpenSocketFirst()
	{
		const LogCapture log;
		LoopbackService first;
		LoopbackService second;
		WSClient client;
		QVERIFY(authenticate(client, first));
		const States states(client);

		client.connectToServer("other", second.url(), "fr", targets("de"), "original");
		QCOMPARE(client.socket->state(), QAbstractSocket::ConnectingState);
		QCOMPARE(client.apiKey, "other");
		QVERIFY(!client.sendTimer->isActive());
		QVERIFY(!client.reconnectTimer->isActive());
		QTRY_COMPARE(second.texts, QStringList{authText("other", "fr", "de", "original")});
		QTRY_COMPARE(first.closeCodes.size(), 1);

		QCOMPARE(states.seen, (QList<int>{kConnecting, kConnected}));
		QVERIFY2(!log.contains(LOG_WARNING, kLostLine), "the wanted abort is no loss of the connection");
		QCOMPARE(client.reconnectAttempts, 0);
		QCOMPARE(first.texts.size(), 1);
	}

	void connectingWhileConnectingAbortsTheFirstAttempt()
	{
		const LogCapture log;
		RawServer silent(QByteArray(), RawServer::After::Stay);
		LoopbackService service;
		WSClient client;
		start(client, silent.url());
		QTRY_COMPARE(silent.connections, 1);
		start(client, service.url());
		QTRY_COMPARE(client.state(), WsState::Connected);
		QVERIFY(log.lines(LOG_WARNING).isEmpty());
	}

	void connectingDuringAReconnectWaitTakesItsPlace()
	{
		LoopbackService service;
		WSClient client;
		QVERIFY(authenticate(client, service));
		service.peer()->abort();
		QTRY_COMPARE(client.state(), WsState::Reconnecting);
		start(client, service.url());
		QVERIFY(!client.reconnectTimer->isActive());
		QCOMPARE(client.reconnectAttempts, 0);
		QTRY_COMPARE(client.state(), WsState::Connected);
	}

	void connectingAgainAfterADisconnectWorks()
	{
		LoopbackService service;
		WSClient client;
		QVERIFY(authenticate(client, service));
		client.disconnectFromServer();
		QVERIFY(client.intentionalDisconnect);
		QVERIFY(authenticate(client, service));
		QVERIFY(!client.intentionalDisconnect);
	}

	// Failed and lost connections

	/** Each failure is followed by exactly one wait, whatever Qt reports about it and in whichever order. */
	void everyFailedConnectionIsRetriedOnce_data()
	{
		QTest::addColumn<QString>("url");
		QTest::addColumn<QByteArray>("answer");
		QTest::addColumn<bool>("stays");
		const QByteArray none;
		const QByteArray notFound = "HTTP/1.1 404 Not Found\r\nContent-Length: 0\r\n\r\n";
		const QByteArray wrongKey = "HTTP/1.1 101 Switching Protocols\r\nUpgrade: websocket\r\n"
					    "Connection: Upgrade\r\nSec-WebSocket-Accept: wrong\r\n\r\n";

		QTest::newRow("refused") << "ws://127.0.0.1:1/" << none << false;
		QTest::newRow("refused by name") << "ws://localhost:1/" << none << false;
		QTest::newRow("refused, TLS") << "wss://localhost:1/" << none << false;
		// No network has a way to the broadcast address by TCP.
		QTest::newRow("network unreachable") << "ws://255.255.255.255:1/" << none << false;
		QTest::newRow("unresolvable") << "ws://no-such-host.invalid/" << none << false;
		QTest::newRow("unresolvable, TLS") << "wss://no-such-host.invalid/" << none << false;
		QTest::newRow("address without a host") << "ws://" << none << false;
		QTest::newRow("address of another scheme") << "http://localhost:1/" << none << false;
		QTest::newRow("address that is none") << "ws://[" << none << false;
		QTest::newRow("404, then closed") << "ws" << notFound << false;
		QTest::newRow("404, kept open") << "ws" << notFound << true;
		QTest::newRow("401") << "ws" << QByteArray("HTTP/1.1 401 Unauthorized\r\n\r\n") << true;
		QTest::newRow("503") << "ws" << QByteArray("HTTP/1.1 503 Service Unavailable\r\n\r\n") << false;
		QTest::newRow("wrong accept key") << "ws" << wrongKey << true;
		QTest::newRow("no HTTP, then closed") << "ws" << QByteArray("220 ready\r\n\r\n") << false;
		QTest::newRow("no HTTP, kept open") << "ws" << QByteArray("220 ready\r\n\r\n") << true;
		QTest::newRow("closed in mid-header") << "ws" << QByteArray("HTTP/1.1 101 Swi") << false;
		QTest::newRow("closed without an answer") << "ws" << none << false;
		QTest::newRow("TLS to a server without") << "wss" << QByteArray("220 ready\r\n") << false;
		QTest::newRow("TLS closed in the handshake") << "wss" << none << false;
	}
	void everyFailedConnectionIsRetriedOnce()
	{
		QFETCH(QString, url);
		QFETCH(QByteArray, answer);
		QFETCH(bool, stays);
		const LogCapture log;
		RawServer server(answer, stays ? RawServer::After::Stay : RawServer::After::Close);
		WSClient client;
		const States states(client);
		QSignalSpy errors(&client, &WSClient::errorOccurred);
		start(client, url.contains(':') ? url : server.url(url));

		for (int attempt = 1; attempt <= 3; ++attempt) {
			QTRY_COMPARE(client.state(), WsState::Reconnecting);
			QTRY_COMPARE(errors.isEmpty(), false);
			QVERIFY(!errors.takeFirst().first().toString().isEmpty());
			QCOMPARE(client.reconnectTimer->interval(), 500 << attempt);
			reconnectNow(client);
		}
		QTRY_COMPARE(client.state(), WsState::Reconnecting);
		// Some of these errors come while the socket is being opened.
		QCOMPARE(log.ownLines().first(), connectingLine(client.serverUrl));
		QCOMPARE(log.lines(LOG_WARNING).count(kLostLine), 4);
		QCOMPARE(client.reconnectAttempts, 4);
		QCOMPARE(states.seen, (QList<int>{kConnecting, kReconnecting, kConnecting, kReconnecting, kConnecting,
						  kReconnecting, kConnecting, kReconnecting}));
	}

	void aSocketErrorIsLoggedAndReported()
	{
		const LogCapture log;
		WSClient client;
		QSignalSpy errors(&client, &WSClient::errorOccurred);
		start(client, "ws://127.0.0.1:1/");
		QTRY_COMPARE(errors.size(), 1);
		QCOMPARE(errors.first().first().toString(), "Connection refused");
		QVERIFY(log.contains(LOG_WARNING, "[talvora-obs] WebSocket error 0: Connection refused"));
	}

	void aSocketErrorAloneChangesNoState()
	{
		LoopbackService service;
		WSClient client;
		QVERIFY(authenticate(client, service));
		const States states(client);
		client.onSocketError(QAbstractSocket::TemporaryError);
		QVERIFY(delivered(client, service));
		QVERIFY(states.seen.isEmpty());
		QVERIFY(client.sendTimer->isActive());
	}

	void anErrorOfAnOldAttemptDoesNotEndTheNewOne()
	{
		LoopbackService service;
		WSClient client;
		start(client, "http://localhost:1/");
		start(client, service.url());
		QTRY_COMPARE(client.state(), WsState::Connected);
		QCOMPARE(client.reconnectAttempts, 0);
	}

	void aLostConnectionComesBackByItselfWithTheNewestValues()
	{
		const LogCapture log;
		LoopbackService service;
		WSClient client;
		QVERIFY(authenticate(client, service));
		client.updateConfig(targets("it"), "original");
		QTRY_COMPARE(service.texts.size(), 2);
		const States states(client);
		service.peer()->close();
		QTRY_COMPARE(client.state(), WsState::Reconnecting);
		QVERIFY(!client.sendTimer->isActive());
		QCOMPARE(client.reconnectTimer->interval(), 1000);

		// The real wait, once.
		QTRY_COMPARE(service.texts.size(), 3);
		QCOMPARE(service.texts.last(), authText(kKey, "en", "it", "original"));
		QCOMPARE(states.seen, (QList<int>{kReconnecting, kConnecting, kConnected}));
		QVERIFY(log.contains(LOG_WARNING, kLostLine));
		QVERIFY(log.contains(LOG_INFO, "[talvora-obs] WSClient: reconnecting in 1000 ms (attempt 1)"));
		QVERIFY(log.contains(LOG_INFO, "[talvora-obs] WSClient: reconnect attempt 2/5"));
	}

	void theWaitsDoubleAndTheSixthFailureGivesUpWithoutAnAttempt()
	{
		const LogCapture log;
		WSClient client;
		QSignalSpy errors(&client, &WSClient::errorOccurred);
		start(client, "ws://127.0.0.1:1/");

		const QList<int> delays{1000, 2000, 4000, 8000, 16000};
		for (int i = 0; i < delays.size(); ++i) {
			QTRY_COMPARE(errors.size(), 1);
			errors.clear();
			QCOMPARE(client.state(), WsState::Reconnecting);
			QCOMPARE(client.reconnectTimer->interval(), delays[i]);
			QCOMPARE(log.lines(LOG_INFO).last(),
				 QStringLiteral("[talvora-obs] WSClient: reconnecting in %1 ms (attempt %2)")
					 .arg(delays[i])
					 .arg(i + 1));
			if (i + 1 < delays.size()) {
				reconnectNow(client);
				QCOMPARE(log.lines(LOG_INFO).last(),
					 QStringLiteral("[talvora-obs] WSClient: reconnect attempt %1/5").arg(i + 2));
				QCOMPARE(client.state(), WsState::Connecting);
			}
		}

		reconnectNow(client);
		QCOMPARE(client.state(), WsState::Disconnected);
		QCOMPARE(client.socket->state(), QAbstractSocket::UnconnectedState);
		QVERIFY(!client.reconnectTimer->isActive());
		QCOMPARE(errors.size(), 1);
		QCOMPARE(errors.first().first().toString(), kGaveUpText);
		QCOMPARE(log.lines(LOG_ERROR), QStringList{kGaveUpLine});
		QCOMPARE(log.lines(LOG_INFO).filter("reconnect attempt").size(), 4);
		QCOMPARE(log.lines(LOG_INFO).filter("reconnecting in").size(), 5);
	}

	void afterGivingUpANewConnectHasTheFullBudget()
	{
		LoopbackService service;
		WSClient client;
		client.reconnectAttempts = 5;
		client.setState(WsState::Reconnecting);
		client.onReconnectTimerTick();
		QCOMPARE(client.state(), WsState::Disconnected);
		start(client, service.url());
		QCOMPARE(client.reconnectAttempts, 0);
		QTRY_COMPARE(client.state(), WsState::Connected);
	}

	void authenticationRestoresTheBudget()
	{
		LoopbackService service;
		WSClient client;
		start(client, service.url());
		QTRY_COMPARE(service.texts.size(), 1);
		for (int lost = 1; lost <= 3; ++lost) {
			service.peer()->abort();
			QTRY_COMPARE(client.state(), WsState::Reconnecting);
			QCOMPARE(client.reconnectAttempts, lost);
			reconnectNow(client);
			QTRY_COMPARE(service.texts.size(), lost + 1);
		}
		service.send(kAuthOk);
		QTRY_COMPARE(client.state(), WsState::Authenticated);
		QCOMPARE(client.reconnectAttempts, 0);
		service.peer()->abort();
		QTRY_COMPARE(client.state(), WsState::Reconnecting);
		QCOMPARE(client.reconnectTimer->interval(), 1000);
	}

	void theDelayStopsDoublingAfterTwentyTimes_data()
	{
		QTest::addColumn<int>("attempts");
		QTest::addColumn<int>("delay");
		QTest::newRow("19") << 19 << 524288000;
		QTest::newRow("20") << 20 << 1048576000;
		QTest::newRow("21") << 21 << 1048576000;
		QTest::newRow("100") << 100 << 1048576000;
	}
	void theDelayStopsDoublingAfterTwentyTimes()
	{
		QFETCH(int, attempts);
		QFETCH(int, delay);
		WSClient client;
		client.reconnectAttempts = attempts;
		client.scheduleReconnect();
		QCOMPARE(client.reconnectTimer->interval(), delay);
		QCOMPARE(client.reconnectAttempts, attempts + 1);
	}

	void aDisconnectInStateDisconnectingCountsAsWanted()
	{
		WSClient client;
		client.setState(WsState::Disconnecting);
		client.onDisconnected();
		QCOMPARE(client.state(), WsState::Disconnected);
		QVERIFY(!client.reconnectTimer->isActive());
	}

	// Disconnecting

	void aDisconnectAfterDisconnectFromServerDoesNotReconnect()
	{
		const LogCapture log;
		LoopbackService service;
		WSClient client;
		QVERIFY(authenticate(client, service));
		const States states(client);
		client.disconnectFromServer();
		client.onDisconnected();
		QCOMPARE(states.seen, QList<int>{kDisconnected});
		QVERIFY(!client.reconnectTimer->isActive());
		QVERIFY(log.lines(LOG_WARNING).isEmpty());
	}

	void aReconnectTickAfterDisconnectFromServerDoesNothing()
	{
		LoopbackService service;
		WSClient client;
		QVERIFY(authenticate(client, service));
		service.peer()->abort();
		QTRY_COMPARE(client.state(), WsState::Reconnecting);
		client.disconnectFromServer();
		QCOMPARE(client.state(), WsState::Disconnected);
		QVERIFY(!client.reconnectTimer->isActive());

		const LogCapture log;
		const AllSignals any(client);
		client.onReconnectTimerTick();
		client.reconnectAttempts = 5;
		client.onReconnectTimerTick();
		QCOMPARE(client.socket->state(), QAbstractSocket::UnconnectedState);
		QCOMPARE(any.total(), 0);
		QVERIFY(log.ownLines().isEmpty());
	}

	void disconnectingWhileAuthenticatedSaysStop()
	{
		LoopbackService service;
		WSClient client;
		QVERIFY(authenticate(client, service));
		client.disconnectFromServer();
		QTRY_COMPARE(service.closeCodes.size(), 1);
		QCOMPARE(service.texts.size(), 2);
		QCOMPARE(service.texts.last(), kStop);
		QCOMPARE(service.closeCodes.first(), 1006);
	}

	void disconnectingWhileConnectedSaysStop()
	{
		LoopbackService service;
		WSClient client;
		start(client, service.url());
		QTRY_COMPARE(service.texts.size(), 1);
		QCOMPARE(client.state(), WsState::Connected);
		client.disconnectFromServer();
		QTRY_COMPARE(service.closeCodes.size(), 1);
		QCOMPARE(service.texts.last(), kStop);
	}

	void disconnectingInAnyOtherStateSaysNothing_data()
	{
		QTest::addColumn<int>("state");
		QTest::newRow("disconnected") << kDisconnected;
		QTest::newRow("connecting") << kConnecting;
		QTest::newRow("reconnecting") << kReconnecting;
		QTest::newRow("disconnecting") << kDisconnecting;
	}
	void disconnectingInAnyOtherStateSaysNothing()
	{
		QFETCH(int, state);
		LoopbackService service;
		WSClient client;
		start(client, service.url());
		QTRY_COMPARE(service.texts.size(), 1);
		client.setState(static_cast<WsState>(state));
		client.disconnectFromServer();
		QCOMPARE(client.state(), WsState::Disconnected);
		QTRY_COMPARE(service.closeCodes.size(), 1);
		QCOMPARE(service.texts.size(), 1);
	}

	void stopFollowsAudioThatIsStillOnItsWay()
	{
		LoopbackService service;
		WSClient client;
		QVERIFY(authenticate(client, service));
		client.sendTimer->stop();
		const auto samples = countingSamples(8000);
		client.enqueueAudio(samples.data(), samples.size());
		client.onSendTimerTick();
		client.disconnectFromServer();
		QTRY_COMPARE(service.closeCodes.size(), 1);
		QCOMPARE(service.texts.last(), kStop);
		QCOMPARE(service.frames.join(), bytesOf(samples));
	}

	// TLS

	void aTrustedCertificateIsAccepted()
	{
		const auto certificate = trustedServerCertificate("localhost");
		QVERIFY2(certificate, "mkcert is needed");
		LoopbackService service(certificate);
		WSClient client;
		QVERIFY2(authenticate(client, service), "has \"mkcert -install\" been run?");
		client.disconnectFromServer();
		QTRY_COMPARE(service.closeCodes.size(), 1);
		QCOMPARE(service.texts, (QStringList{authText(kKey, "en", "es", "translated"), kStop}));
	}

	void aCertificateThatCannotBeVerifiedIsRefused_data()
	{
		QTest::addColumn<bool>("knownRoot");
		QTest::addColumn<QString>("reason");
		QTest::newRow("unknown root")
			<< false << "The issuer certificate of a locally looked up certificate could not be found";
		QTest::newRow("other host")
			<< true << "The host name did not match any of the valid hosts for this certificate";
	}
	void aCertificateThatCannotBeVerifiedIsRefused()
	{
		QFETCH(bool, knownRoot);
		QFETCH(QString, reason);
		const auto certificate =
			knownRoot ? trustedServerCertificate("elsewhere.example") : unknownRootServerCertificate();
		QVERIFY2(certificate, "mkcert and openssl are needed");
		const LogCapture log;
		LoopbackService service(certificate);
		WSClient client;
		QSignalSpy errors(&client, &WSClient::errorOccurred);
		start(client, service.url());
		QTRY_COMPARE(client.state(), WsState::Reconnecting);
		QCOMPARE(errors.size(), 1);
		QCOMPARE(errors.first().first().toString(), reason);
		QVERIFY(log.contains(LOG_WARNING, "[talvora-obs] WebSocket error 13: " + reason));
		reconnectNow(client);
		QTRY_COMPARE(client.state(), WsState::Reconnecting);
		QCOMPARE(log.lines(LOG_WARNING).count(kLostLine), 2);
		QVERIFY2(service.texts.isEmpty(), "no credential reaches a service that cannot be verified");
	}

	// The worker thread

	/** The way the owner does it, with the client on a thread of its own. */
	void aDisconnectQueuedBeforeTheThreadQuitsSaysStop_data()
	{
		QTest::addColumn<bool>("secure");
		QTest::addColumn<bool>("queued");
		QTest::newRow("disconnect queued") << false << true;
		QTest::newRow("disconnect queued, TLS") << true << true;
		QTest::newRow("quit alone") << false << false;
		QTest::newRow("quit alone, TLS") << true << false;
	}
	void aDisconnectQueuedBeforeTheThreadQuitsSaysStop()
	{
		QFETCH(bool, secure);
		QFETCH(bool, queued);
		const QtWarnings qtWarnings;
		const auto certificate = secure ? trustedServerCertificate("localhost") : std::nullopt;
		QCOMPARE(certificate.has_value(), secure);

		for (int round = 0; round < 10; ++round) {
			LoopbackService service(certificate);
			auto thread = std::make_unique<QThread>();
			auto client = std::make_unique<WSClient>();
			client->moveToThread(thread.get());
			thread->start();
			QVERIFY(QMetaObject::invokeMethod(client.get(), "connectToServer", Qt::QueuedConnection,
							  Q_ARG(QString, kKey), Q_ARG(QString, service.url()),
							  Q_ARG(QString, "en"), Q_ARG(QJsonArray, targets("es")),
							  Q_ARG(QString, "translated")));
			QTRY_COMPARE(service.texts.size(), 1);
			service.send(kAuthOk);
			QTRY_COMPARE(client->state(), WsState::Authenticated);

			if (queued) {
				QMetaObject::invokeMethod(client.get(), "disconnectFromServer", Qt::QueuedConnection);
			}
			thread->quit();
			QVERIFY(thread->wait(5000));
			QCOMPARE(client->state(), WsState::Disconnected);
			thread.reset();
			client.reset();
			QTRY_COMPARE(service.closeCodes.size(), 1);
			QCOMPARE(service.texts, (QStringList{authText(kKey, "en", "es", "translated"), kStop}));
		}
		QCOMPARE(qtWarnings.lines(), QStringList());
	}

	void theThreadCanEndInAnyState_data()
	{
		QTest::addColumn<int>("state");
		QTest::newRow("never connected") << kDisconnected;
		QTest::newRow("connecting") << kConnecting;
		QTest::newRow("waiting to reconnect") << kReconnecting;
	}
	void theThreadCanEndInAnyState()
	{
		QFETCH(int, state);
		const QtWarnings qtWarnings;
		RawServer silent(QByteArray(), RawServer::After::Stay);
		auto thread = std::make_unique<QThread>();
		auto client = std::make_unique<WSClient>();
		client->moveToThread(thread.get());
		thread->start();
		if (state != kDisconnected) {
			const QString url = state == kConnecting ? silent.url() : QStringLiteral("ws://127.0.0.1:1/");
			QVERIFY(QMetaObject::invokeMethod(client.get(), "connectToServer", Qt::QueuedConnection,
							  Q_ARG(QString, kKey), Q_ARG(QString, url),
							  Q_ARG(QString, "en"), Q_ARG(QJsonArray, targets("es")),
							  Q_ARG(QString, "translated")));
		}
		QTRY_COMPARE(int(client->state()), state);
		thread->quit();
		QVERIFY(thread->wait(5000));
		QCOMPARE(client->state(), WsState::Disconnected);
		thread.reset();
		client.reset();
		QCOMPARE(qtWarnings.lines(), QStringList());
	}
};

QTEST_GUILESS_MAIN(WSClientTest)
#include "ws-client-test.moc"
