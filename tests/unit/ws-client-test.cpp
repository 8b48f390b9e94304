// SPDX-License-Identifier: GPL-2.0-or-later
#include "ws-client.h"

#include "deployment.h"
#include "log-capture.h"
#include "loopback-service.h"
#include "test-certificates.h"

#include <QJsonDocument>
#include <QMetaMethod>
#include <QSignalSpy>
#include <QTest>
#include <QThread>
#include <QTimer>
#include <QUrl>
#include <QUrlQuery>
#include <QWebSocket>

#include <cstdlib>
#include <memory>
#include <new>
#include <numeric>
#include <vector>

namespace {

thread_local size_t allocations = 0;

} // namespace

// Counts this program's allocations by thread, for the promise that the audio thread makes none.
[[gnu::noinline]] void *operator new(size_t size)
{
	++allocations;
	if (void *memory = std::malloc(size ? size : 1)) {
		return memory;
	}
	throw std::bad_alloc();
}
[[gnu::noinline]] void operator delete(void *memory) noexcept
{
	std::free(memory);
}
[[gnu::noinline]] void operator delete(void *memory, size_t) noexcept
{
	std::free(memory);
}

namespace {

const QString kKey = QStringLiteral("tk_secret");
const QString kAuthOk = QStringLiteral(R"({"type":"auth_ok"})");
const QString kStop = QStringLiteral(R"({"type":"stop"})");
const QString kConnectedLine = QStringLiteral("[talvora-obs] WebSocket connected — sending auth");
const QString kLostLine =
	QStringLiteral("[talvora-obs] WebSocket disconnected unexpectedly — scheduling reconnect");
const QString kGaveUpLine = QStringLiteral("[talvora-obs] WSClient: max reconnect attempts reached — giving up");
const QString kGaveUpText =
	QStringLiteral("Max reconnect attempts reached. Check your API key and internet connection.");

QJsonArray targets(const QString &code)
{
	return {QJsonObject{{"code", code}, {"dubbing", true}, {"captions", true}}};
}

QString authText(const QString &key, const QString &source, const QString &target, const QString &mode)
{
	return QStringLiteral(R"({"apiKey":"%1","captionMode":"%4","sourceLanguage":"%2",)"
			      R"("targetLanguages":[{"captions":true,"code":"%3","dubbing":true}],"type":"auth"})")
		.arg(key, source, target, mode);
}

QString connectingLine(const QString &url)
{
	return QStringLiteral("[talvora-obs] WSClient: connecting to %1").arg(url);
}

/** Samples counting up from `first`. */
std::vector<int16_t> countingSamples(size_t count, int16_t first = 0)
{
	std::vector<int16_t> samples(count);
	std::iota(samples.begin(), samples.end(), first);
	return samples;
}

QByteArray bytesOf(const std::vector<int16_t> &samples)
{
	return QByteArray(reinterpret_cast<const char *>(samples.data()),
			  static_cast<qsizetype>(samples.size() * sizeof(int16_t)));
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

/** The state changes of a client, in order. */
class States {
public:
	explicit States(WSClient &client)
	{
		QObject::connect(&client, &WSClient::stateChanged, &client,
				 [this](WsState state) { seen.append(static_cast<int>(state)); });
	}
	QList<int> seen;
};

/** Counts every signal a client emits, by signal name. */
class AllSignals {
public:
	explicit AllSignals(WSClient &client)
	{
		const QMetaObject *meta = client.metaObject();
		for (int i = meta->methodOffset(); i < meta->methodCount(); ++i) {
			if (meta->method(i).methodType() == QMetaMethod::Signal) {
				spies.push_back(std::make_unique<QSignalSpy>(&client, meta->method(i)));
			}
		}
	}
	qsizetype kinds() const { return static_cast<qsizetype>(spies.size()); }
	qsizetype total() const
	{
		qsizetype sum = 0;
		for (const auto &spy : spies) {
			sum += spy->count();
		}
		return sum;
	}

private:
	std::vector<std::unique_ptr<QSignalSpy>> spies;
};

} // namespace

using Piece = std::tuple<QString, int, QByteArray, int>;

class WSClientTest : public QObject {
	Q_OBJECT

	static constexpr int kDisconnected = 0;
	static constexpr int kConnecting = 1;
	static constexpr int kConnected = 2;
	static constexpr int kAuthenticated = 3;
	static constexpr int kReconnecting = 4;
	static constexpr int kDisconnecting = 5;

	static void start(WSClient &client, const QString &url)
	{
		client.connectToServer(kKey, url, "en", targets("es"), "translated");
	}

	/** Brings the client up to the state Authenticated, with all that was queued for the service delivered. */
	static bool authenticate(WSClient &client, LoopbackService &service)
	{
		const qsizetype before = service.texts.size();
		start(client, service.url());
		if (!QTest::qWaitFor([&] { return service.texts.size() > before; })) {
			return false;
		}
		service.send(kAuthOk);
		return QTest::qWaitFor([&] { return client.state() == WsState::Authenticated; });
	}

	/** Lets the waiting reconnect happen now. */
	static void reconnectNow(WSClient &client)
	{
		QVERIFY(client.reconnectTimer->isActive());
		client.reconnectTimer->stop();
		client.onReconnectTimerTick();
	}

	/** Waits until the client has handled all that the service has sent so far. */
	static bool delivered(WSClient &client, LoopbackService &service)
	{
		QSignalSpy interim(&client, &WSClient::transcriptInterim);
		service.send(R"({"type":"transcript_interim","text":"mark"})");
		return QTest::qWaitFor([&] { return !interim.isEmpty(); });
	}

	static QList<Piece> pieces(const QSignalSpy &spy)
	{
		QList<Piece> all;
		for (const QList<QVariant> &arguments : spy) {
			all.append({arguments[0].toString(), arguments[1].toInt(), arguments[2].toByteArray(),
				    arguments[3].toInt()});
		}
		return all;
	}

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
		QVERIFY(QMetaType::fromType<WsState>().isRegistered());
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
		QVERIFY(!client.sendTimer->isSingleShot());
		QVERIFY(!client.sendTimer->isActive());
		QVERIFY(client.reconnectTimer->isSingleShot());
		QVERIFY(!client.reconnectTimer->isActive());

		QVERIFY(client.socket->origin().isEmpty());
		QCOMPARE(client.socket->version(), QWebSocketProtocol::Version13);
		QCOMPARE(client.socket->parent(), &client);
		QCOMPARE(client.sendTimer->parent(), &client);
		QCOMPARE(client.reconnectTimer->parent(), &client);
		QCOMPARE(client.socket->maxAllowedIncomingMessageSize(), quint64{16 * 1024 * 1024});
		QCOMPARE(client.socket->maxAllowedIncomingFrameSize(), quint64{16 * 1024 * 1024});
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
		QCOMPARE(own.rawHeaderList(), QList<QByteArray>{"User-Agent"});
		QCOMPARE(own.rawHeader("User-Agent"), "Talvora-OBS-Plugin/1.0");
		QCOMPARE(own.url(), QUrl(service.url()));

		const QNetworkRequest &seen = service.requests.first();
		QCOMPARE(seen.rawHeader("User-Agent"), "Talvora-OBS-Plugin/1.0");
		QCOMPARE(seen.url().path(), "/ws/audio-pipeline");
		QVERIFY(!seen.url().hasQuery());
		for (const QByteArray &header : seen.rawHeaderList()) {
			QVERIFY2(!seen.rawHeader(header).contains(kKey.toUtf8()), header.constData());
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
		QTest::newRow("network unreachable") << "ws://10.9.8.7:1/" << none << false;
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
		QCOMPARE(service.closeCodes.first(), int(QWebSocketProtocol::CloseCodeAbnormalDisconnection));
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
		const auto samples = countingSamples(16000);
		client.enqueueAudio(samples.data(), samples.size());
		client.onSendTimerTick();
		client.disconnectFromServer();
		QTRY_COMPARE(service.closeCodes.size(), 1);
		QCOMPARE(service.texts.last(), kStop);
		QCOMPARE(service.frames.join(), bytesOf(samples));
	}

	// Messages

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
		QTest::addColumn<QString>("reason");
		QTest::newRow("nothing") << "" << "illegal value";
		QTest::newRow("word") << "hello" << "illegal value";
		QTest::newRow("cut off") << R"({"type":"auth_ok")" << "unterminated object";
		QTest::newRow("array") << R"([{"type":"auth_ok"}])" << "no error occurred";
		QTest::newRow("two objects") << "{} {}" << "garbage at the end of the document";
	}
	void textThatIsNoJsonObjectIsLoggedAndDropped()
	{
		QFETCH(QString, text);
		QFETCH(QString, reason);
		const LogCapture log;
		LoopbackService service;
		WSClient client;
		QVERIFY(authenticate(client, service));
		const States states(client);
		service.send(text);
		QVERIFY(delivered(client, service));
		QCOMPARE(log.lines(LOG_WARNING), QStringList{"[talvora-obs] WSClient: bad JSON: " + reason});
		QVERIFY(states.seen.isEmpty());
	}

	void hostileTextNeitherCrashesNorCloses()
	{
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

	void anOversizedMessageEndsTheConnectionAndIsRetried()
	{
		LoopbackService service;
		WSClient client;
		QVERIFY(authenticate(client, service));
		QSignalSpy pieces(&client, &WSClient::ttsAudioReady);
		client.onTextMessageReceived(R"({"type":"tts_start","language":"es","clipId":1})");
		service.sendFrame(QByteArray(17 * 1024 * 1024, 'x'));
		QTRY_COMPARE(client.state(), WsState::Reconnecting);
		QVERIFY(pieces.isEmpty());
	}

	void configUpdateIsSentWhileAuthenticated()
	{
		LoopbackService service;
		WSClient client;
		QVERIFY(authenticate(client, service));
		client.updateConfig(targets("fr"), "original");
		QTRY_COMPARE(service.texts.size(), 2);
		QCOMPARE(service.texts.last(),
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

	// Uplink

	void oneTickSendsAllThatIsBufferedInFramesOf320Bytes_data()
	{
		QTest::addColumn<int>("samples");
		QTest::addColumn<QList<qsizetype>>("sizes");
		QTest::newRow("nothing") << 0 << QList<qsizetype>{};
		QTest::newRow("one sample") << 1 << QList<qsizetype>{2};
		QTest::newRow("just one frame") << 160 << QList<qsizetype>{320};
		QTest::newRow("one sample more") << 161 << QList<qsizetype>{320, 2};
		QTest::newRow("1000 bytes") << 500 << QList<qsizetype>{320, 320, 320, 40};
	}
	void oneTickSendsAllThatIsBufferedInFramesOf320Bytes()
	{
		QFETCH(int, samples);
		QFETCH(QList<qsizetype>, sizes);
		LoopbackService service;
		WSClient client;
		QVERIFY(authenticate(client, service));
		client.sendTimer->stop();
		const auto audio = countingSamples(static_cast<size_t>(samples), 1000);
		client.enqueueAudio(audio.data(), audio.size());
		client.onSendTimerTick();
		QCOMPARE(client.audioRing.held(), size_t{0});
		client.disconnectFromServer();
		QTRY_COMPARE(service.closeCodes.size(), 1);

		QList<qsizetype> received;
		for (const QByteArray &frame : service.frames) {
			received.append(frame.size());
		}
		QCOMPARE(received, sizes);
		QCOMPARE(service.frames.join(), bytesOf(audio));
	}

	void theSendTimerDrainsByItself()
	{
		LoopbackService service;
		WSClient client;
		QVERIFY(authenticate(client, service));
		const auto audio = countingSamples(342);
		client.enqueueAudio(audio.data(), audio.size());
		QTRY_COMPARE(service.frames.join(), bytesOf(audio));
	}

	void samplesTravelLittleEndian()
	{
		LoopbackService service;
		WSClient client;
		QVERIFY(authenticate(client, service));
		const int16_t sample = 0x1234;
		client.enqueueAudio(&sample, 1);
		QTRY_COMPARE(service.frames, QList<QByteArray>{"\x34\x12"});
	}

	void nothingIsSentUnlessAuthenticated_data()
	{
		QTest::addColumn<int>("state");
		QTest::newRow("disconnected") << kDisconnected;
		QTest::newRow("connecting") << kConnecting;
		QTest::newRow("connected") << kConnected;
		QTest::newRow("reconnecting") << kReconnecting;
		QTest::newRow("disconnecting") << kDisconnecting;
	}
	void nothingIsSentUnlessAuthenticated()
	{
		QFETCH(int, state);
		LoopbackService service;
		WSClient client;
		start(client, service.url());
		QTRY_COMPARE(service.texts.size(), 1);
		client.setState(static_cast<WsState>(state));
		const auto audio = countingSamples(500);
		client.enqueueAudio(audio.data(), audio.size());
		client.onSendTimerTick();
		QCOMPARE(client.audioRing.held(), size_t{1000});
		client.setState(WsState::Connected);
		client.disconnectFromServer();
		QTRY_COMPARE(service.texts.size(), 2);
		QTRY_COMPARE(service.closeCodes.size(), 1);
		QVERIFY(service.frames.isEmpty());
	}

	void audioBufferedBeforeAuthOkIsNeverSent()
	{
		LoopbackService service;
		WSClient client;
		const auto stale = countingSamples(4800); // 300 ms
		client.enqueueAudio(stale.data(), stale.size());
		start(client, service.url());
		QTRY_COMPARE(service.texts.size(), 1);
		client.enqueueAudio(stale.data(), stale.size());
		service.send(kAuthOk);
		QTRY_COMPARE(client.state(), WsState::Authenticated);
		QCOMPARE(client.audioRing.held(), size_t{0});

		const auto fresh = countingSamples(200, 20000);
		client.enqueueAudio(fresh.data(), fresh.size());
		QTRY_COMPARE(service.frames.join().size(), 400);
		QCOMPARE(service.frames.join(), bytesOf(fresh));
	}

	void enqueueingNothingWritesAndLogsNothing()
	{
		const LogCapture log;
		WSClient client;
		const int16_t sample = 1;
		client.enqueueAudio(&sample, 0);
		QCOMPARE(client.audioRing.held(), size_t{0});
		const std::vector<int16_t> filler(AudioRing::kCapacity / 2);
		client.enqueueAudio(filler.data(), filler.size());
		client.enqueueAudio(&sample, 0);
		QVERIFY(log.ownLines().isEmpty());
	}

	void whatDoesNotFitIsDroppedAndLogged()
	{
		const LogCapture log;
		WSClient client;
		const std::vector<int16_t> filler(AudioRing::kCapacity / 2 - 3);
		client.enqueueAudio(filler.data(), filler.size());
		QVERIFY(log.ownLines().isEmpty());

		const auto audio = countingSamples(4);
		client.enqueueAudio(audio.data(), 4);
		QCOMPARE(log.lines(LOG_DEBUG),
			 QStringList{"[talvora-obs] WSClient: ring buffer full, dropped 2 of 8 bytes"});
		client.enqueueAudio(audio.data(), 4);
		QCOMPARE(log.lines(LOG_DEBUG).last(),
			 "[talvora-obs] WSClient: ring buffer full, dropped 8 of 8 bytes");
		QCOMPARE(log.ownLines().size(), 2);
		QCOMPARE(client.audioRing.held(), size_t{262144});
	}

	void enqueueingAllocatesNothing()
	{
		WSClient client;
		const auto audio = countingSamples(342);
		const size_t before = allocations;
		for (int chunk = 0; chunk < 300; ++chunk) {
			client.enqueueAudio(audio.data(), audio.size());
		}
		QCOMPARE(allocations - before, size_t{0});
		QVERIFY2(before > 0, "the counter counts");
	}

	/** One thread speaks while the other connects, loses the connection and sends. */
	void audioArrivesWholeFromAnotherThread()
	{
		LoopbackService service;
		WSClient client;
		QVERIFY(authenticate(client, service));
		constexpr int kChunks = 300;
		constexpr int kChunkSamples = 341;
		std::unique_ptr<QThread> audioThread(QThread::create([&client] {
			for (int chunk = 0; chunk < kChunks; ++chunk) {
				const auto audio =
					countingSamples(kChunkSamples, static_cast<int16_t>(chunk * kChunkSamples));
				client.enqueueAudio(audio.data(), audio.size());
				QThread::usleep(500);
			}
		}));
		audioThread->start();
		QTRY_COMPARE(service.frames.join().size(), kChunks * kChunkSamples * 2);
		QVERIFY(audioThread->wait(5000));
		std::vector<int16_t> expected(kChunks * kChunkSamples);
		for (size_t i = 0; i < expected.size(); ++i) {
			expected[i] = static_cast<int16_t>(i);
		}
		QCOMPARE(service.frames.join(), bytesOf(expected));
		for (const QByteArray &frame : service.frames) {
			QVERIFY(frame.size() <= 320 && frame.size() % 2 == 0);
		}
	}

	// Synthesised speech

	void aClipStreamsOutAndEndsWithAnEmptyPiece()
	{
		LoopbackService service;
		WSClient client;
		QVERIFY(authenticate(client, service));
		QSignalSpy spy(&client, &WSClient::ttsAudioReady);
		service.send(R"({"type":"tts_start","language":"es","clipId":7,"sampleRate":22050})");
		service.sendFrame("\x02"
				  "esabcd");
		service.sendFrame("\x02"
				  "esef");
		service.send(R"({"type":"tts_end","language":"es"})");
		QTRY_COMPARE(spy.size(), 3);
		QCOMPARE(pieces(spy), (QList<Piece>{{"es", 7, "abcd", 22050}, {"es", 7, "ef", 22050}, {"es", 7, "", 22050}}));
		QVERIFY(client.pendingTts.empty());
	}

	void aTagAloneYieldsNothing()
	{
		WSClient client;
		QSignalSpy spy(&client, &WSClient::ttsAudioReady);
		client.onTextMessageReceived(R"({"type":"tts_start","language":"en","clipId":1})");
		client.onBinaryMessageReceived("\x02"
					       "en");
		QVERIFY(spy.isEmpty());
	}

	void twoSegmentsInOneFrameGiveTwoPiecesInFrameOrder()
	{
		WSClient client;
		QSignalSpy spy(&client, &WSClient::ttsAudioReady);
		client.onTextMessageReceived(R"({"type":"tts_start","language":"en","clipId":1,"sampleRate":16000})");
		client.onTextMessageReceived(R"({"type":"tts_start","language":"es","clipId":2,"sampleRate":22050})");
		client.onBinaryMessageReceived("\x02"
					       "es1234\x02"
					       "en56");
		QCOMPARE(pieces(spy), (QList<Piece>{{"es", 2, "1234", 22050}, {"en", 1, "56", 16000}}));
	}

	void pcmThatNamesAnOpenClipSplitsAndOtherwiseDoesNot()
	{
		WSClient client;
		QSignalSpy spy(&client, &WSClient::ttsAudioReady);
		client.onTextMessageReceived(R"({"type":"tts_start","language":"en","clipId":1})");
		const QByteArray frame = "\x02"
					 "en1\x02"
					 "es23";
		client.onBinaryMessageReceived(frame);
		QCOMPARE(pieces(spy), (QList<Piece>{{"en", 1, frame.mid(3), 24000}}));
		spy.clear();
		client.onTextMessageReceived(R"({"type":"tts_start","language":"es","clipId":2})");
		client.onBinaryMessageReceived(frame + "4");
		QCOMPARE(pieces(spy), (QList<Piece>{{"es", 2, "23", 24000}}));
	}

	void anOddByteWaitsForTheNextFrameOfItsClip()
	{
		WSClient client;
		QSignalSpy spy(&client, &WSClient::ttsAudioReady);
		client.onTextMessageReceived(R"({"type":"tts_start","language":"en","clipId":1})");
		client.onBinaryMessageReceived("\x02"
					       "en" +
					       QByteArray(400, '.') + "z");
		client.onBinaryMessageReceived("\x02"
					       "eny");
		QCOMPARE(pieces(spy),
			 (QList<Piece>{{"en", 1, QByteArray(400, '.'), 24000}, {"en", 1, "zy", 24000}}));
	}

	void anOddByteAtTheEndOfTheClipIsLost()
	{
		WSClient client;
		QSignalSpy spy(&client, &WSClient::ttsAudioReady);
		client.onTextMessageReceived(R"({"type":"tts_start","language":"en","clipId":1})");
		client.onBinaryMessageReceived("\x02"
					       "enz");
		client.onTextMessageReceived(R"({"type":"tts_end","language":"en"})");
		QCOMPARE(pieces(spy), (QList<Piece>{{"en", 1, "", 24000}}));
	}

	void ttsEndWithoutLanguageClosesTheLastStartedClip()
	{
		WSClient client;
		QSignalSpy spy(&client, &WSClient::ttsAudioReady);
		client.onTextMessageReceived(R"({"type":"tts_start","language":"es","clipId":1})");
		client.onTextMessageReceived(R"({"type":"tts_start","language":"en","clipId":2})");
		client.onTextMessageReceived(R"({"type":"tts_end"})");
		QCOMPARE(pieces(spy), (QList<Piece>{{"en", 2, "", 24000}}));
		client.onTextMessageReceived(R"({"type":"tts_end"})");
		QCOMPARE(spy.size(), 1);
		QCOMPARE(client.pendingTts.size(), size_t{1});
	}

	void ttsEndOfAnUnknownLanguageIsIgnored()
	{
		const LogCapture log;
		WSClient client;
		const AllSignals any(client);
		client.onTextMessageReceived(R"({"type":"tts_end","language":"es"})");
		client.onTextMessageReceived(R"({"type":"tts_end"})");
		QCOMPARE(any.total(), 0);
		QVERIFY(log.ownLines().isEmpty());
	}

	void ttsStartWithoutSampleRateUses24000Hz()
	{
		WSClient client;
		QSignalSpy spy(&client, &WSClient::ttsAudioReady);
		client.onTextMessageReceived(R"({"type":"tts_start","language":"en","clipId":3})");
		client.onBinaryMessageReceived("\x02"
					       "enab");
		QCOMPARE(pieces(spy), (QList<Piece>{{"en", 3, "ab", 24000}}));
	}

	void ttsStartWithTheSameIdKeepsTheBytesHeld()
	{
		WSClient client;
		QSignalSpy spy(&client, &WSClient::ttsAudioReady);
		client.onTextMessageReceived(R"({"type":"tts_start","language":"en","clipId":3,"sampleRate":16000})");
		client.onBinaryMessageReceived("\x02"
					       "ena");
		client.onTextMessageReceived(R"({"type":"tts_start","language":"en","clipId":3,"sampleRate":8000})");
		client.onBinaryMessageReceived("\x02"
					       "enb");
		QCOMPARE(pieces(spy), (QList<Piece>{{"en", 3, "ab", 16000}}));
	}

	void ttsStartWithANewIdDropsTheOldClipWithoutAnEndMarker()
	{
		WSClient client;
		QSignalSpy spy(&client, &WSClient::ttsAudioReady);
		client.onTextMessageReceived(R"({"type":"tts_start","language":"en","clipId":3,"sampleRate":16000})");
		client.onBinaryMessageReceived("\x02"
					       "ena");
		client.onTextMessageReceived(R"({"type":"tts_start","language":"en","clipId":4,"sampleRate":8000})");
		QVERIFY(spy.isEmpty());
		client.onBinaryMessageReceived("\x02"
					       "enbc");
		QCOMPARE(pieces(spy), (QList<Piece>{{"en", 4, "bc", 8000}}));
	}

	void speechWithoutAnOpenClipIsDroppedSilently()
	{
		const LogCapture log;
		WSClient client;
		const AllSignals any(client);
		client.onBinaryMessageReceived("\x02"
					       "enabcd");
		client.onBinaryMessageReceived(QByteArray());
		QCOMPARE(any.total(), 0);
		QVERIFY(log.ownLines().isEmpty());
	}

	void openClipsSurviveALostConnection()
	{
		LoopbackService service;
		WSClient client;
		QVERIFY(authenticate(client, service));
		client.onTextMessageReceived(R"({"type":"tts_start","language":"en","clipId":3})");
		service.peer()->abort();
		QTRY_COMPARE(client.state(), WsState::Reconnecting);
		QCOMPARE(client.pendingTts.size(), size_t{1});
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
		const auto certificate = knownRoot ? trustedServerCertificate("elsewhere.example")
						   : unknownRootServerCertificate();
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

		for (int round = 0; round < 20; ++round) {
			LoopbackService service(certificate);
			auto thread = std::make_unique<QThread>();
			auto client = std::make_unique<WSClient>();
			client->moveToThread(thread.get());
			thread->start();
			QVERIFY(QMetaObject::invokeMethod(
				client.get(), "connectToServer", Qt::QueuedConnection, Q_ARG(QString, kKey),
				Q_ARG(QString, service.url()), Q_ARG(QString, "en"), Q_ARG(QJsonArray, targets("es")),
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
