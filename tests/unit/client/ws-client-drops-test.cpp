// SPDX-License-Identifier: GPL-2.0-or-later
#include "client/ws-client.h"

#include "fault-session.h"
#include "test-certificates.h"

#include <QElapsedTimer>
#include <QSignalSpy>
#include <QTest>
#include <QTimer>
#include <QWebSocket>

#include <algorithm>
#include <csignal>
#include <memory>
#include <optional>

#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr const char *kLostLine = "[talvora-obs] WebSocket disconnected unexpectedly — scheduling reconnect";
constexpr const char *kNoAnswerLine = "[talvora-obs] WebSocket error 5: The service does not answer";

/** Lets a second of the client's watch last only so many milliseconds. */
void hurry(WSClient &client, int ms)
{
	const auto timers = client.findChildren<QTimer *>();
	for (QTimer *timer : timers) {
		if (!timer->isSingleShot() && timer->interval() == 1000) {
			timer->setInterval(ms);
		}
	}
}

bool isReconnecting(const WSClient &client, int withinMs)
{
	return QTest::qWaitFor([&client] { return client.state() == WsState::Reconnecting; }, withinMs);
}

/** State changes and errors of a client in the order in which it tells them. */
class Told {
public:
	explicit Told(WSClient &client)
	{
		QObject::connect(&client, &WSClient::stateChanged, &client,
				 [this](WsState state) { seen.append(QString::number(static_cast<int>(state))); });
		QObject::connect(&client, &WSClient::errorOccurred, &client,
				 [this](const QString &text) { seen.append(text); });
	}
	QStringList seen;
};

/** Half of a binary frame of 4096 bytes. */
const QByteArray kHalfFrame = QByteArray("\x82\x7e\x10\x00", 4) + QByteArray(2048, 'x');

} // namespace

/** How a connection ends that the service or the network ends, and what the next one inherits from it: nothing. */
class WSClientTest : public QObject {
	Q_OBJECT

	std::optional<QSslConfiguration> trusted;

	static void addPlainAndTls()
	{
		QTest::addColumn<bool>("secure");
		QTest::newRow("plain") << false;
		QTest::newRow("TLS") << true;
	}

private Q_SLOTS:
	void initTestCase()
	{
		trusted = trustedServerCertificate("localhost");
		QVERIFY2(trusted, "mkcert is needed");
	}

	// Nothing is heard

	void silenceIsADrop_data()
	{
		QTest::addColumn<bool>("secure");
		QTest::addColumn<bool>("speaking");
		QTest::newRow("plain, with audio") << false << true;
		QTest::newRow("plain, without audio") << false << false;
		QTest::newRow("TLS, with audio") << true << true;
		QTest::newRow("TLS, without audio") << true << false;
	}
	void silenceIsADrop()
	{
		QFETCH(bool, secure);
		QFETCH(bool, speaking);
		Session session(secure ? trusted : std::nullopt);
		session.connect();
		QVERIFY(session.accept());
		QVERIFY(session.goesOn());
		if (!speaking) {
			session.audio.end();
		}
		session.proxy.setStalled(true);
		QElapsedTimer timer;
		timer.start();
		hurry(session.client, 50);
		QVERIFY2(isReconnecting(session.client, 10000), "a dead line is not noticed");
		QVERIFY2(timer.elapsed() >= 29 * 45, qPrintable(QString::number(timer.elapsed())));
		QCOMPARE(session.reasons(), QStringList{"Error.NoAnswer"});
		QCOMPARE(session.log.lines(LOG_WARNING), (QStringList{kNoAnswerLine, kLostLine}));

		session.proxy.setStalled(false);
		reconnectNow(session.client);
		QVERIFY(session.accept());
		session.client.disconnectFromServer();
	}

	/** A muted microphone and a speaker who is silent: nothing goes either way but what WebSockets say to each
	 * other. */
	void quietConnectionIsKept()
	{
		Session session(trusted);
		session.connect();
		QVERIFY(session.accept());
		session.audio.end();
		QSignalSpy pongs(session.client.socket, &QWebSocket::pong);
		hurry(session.client, 20);
		QVERIFY(QTest::qWaitFor([&] { return pongs.size() == 8; }, 10000));
		QCOMPARE(session.client.state(), WsState::Authenticated);
		QVERIFY(session.log.lines(LOG_WARNING).isEmpty());
		session.client.disconnectFromServer();
	}

	void pingEveryTenSeconds()
	{
		Session session;
		session.connect();
		QVERIFY(session.accept());
		QSignalSpy pongs(session.client.socket, &QWebSocket::pong);
		session.client.watchTimer->stop();
		session.client.watchTicks = 0;
		for (int tick = 1; tick <= 29; ++tick) {
			session.client.onWatchTick();
		}
		QVERIFY(delivered(session.client, session.service));
		QTRY_COMPARE(pongs.size(), 2);
		session.client.onWatchTick();
		QTRY_COMPARE(pongs.size(), 3);
		session.client.disconnectFromServer();
	}

	void whateverIsHeardEndsTheSilence_data()
	{
		QTest::addColumn<QString>("what");
		QTest::newRow("text") << "text";
		QTest::newRow("frame") << "frame";
		QTest::newRow("pong") << "pong";
		QTest::newRow("part of a message") << "part";
	}
	void whateverIsHeardEndsTheSilence()
	{
		QFETCH(QString, what);
		Session session;
		session.connect();
		QVERIFY(session.accept());
		session.client.watchTimer->stop();
		for (int round = 0; round < 3; ++round) {
			for (int tick = 1; tick <= 25; ++tick) {
				session.client.onWatchTick();
			}
			QVERIFY(session.client.silentSeconds >= 25);
			QSignalSpy pongs(session.client.socket, &QWebSocket::pong);
			if (what == "text") {
				session.service.send("{}");
			} else if (what == "frame") {
				session.service.sendFrame("x");
			} else if (what == "part") {
				session.proxy.inject(round == 0 ? QByteArray("\x02\x01x") : QByteArray("\x00\x01x", 3));
			}
			// Or the answers to the pings of the ticks.
			QTRY_COMPARE(session.client.silentSeconds, 0);
		}
		QCOMPARE(session.client.state(), WsState::Authenticated);
		session.client.disconnectFromServer();
	}

	void noAnswerToAuthIsADrop()
	{
		Session session(trusted);
		session.connect();
		QVERIFY(QTest::qWaitFor([&] { return !session.service.texts.isEmpty(); }));
		QCOMPARE(session.client.state(), WsState::Connected);
		session.accepted = 1;
		// Pings are answered, so the line is not silent.
		hurry(session.client, 20);
		QVERIFY2(isReconnecting(session.client, 10000), "a service that never answers \"auth\" is not noticed");
		QCOMPARE(session.reasons(), QStringList{"Error.NoAnswer"});
		reconnectNow(session.client);
		QVERIFY(session.accept());
		QCOMPARE(session.flawAtTheEnd(), QString());
	}

	void authHasAMinute()
	{
		Session session;
		session.connect();
		QVERIFY(QTest::qWaitFor([&] { return !session.service.texts.isEmpty(); }));
		session.client.watchTimer->stop();
		session.client.unansweredSeconds = 0;
		for (int tick = 1; tick <= 59; ++tick) {
			session.client.silentSeconds = 0;
			session.client.onWatchTick();
		}
		QCOMPARE(session.client.state(), WsState::Connected);
		session.client.silentSeconds = 0;
		session.client.onWatchTick();
		QCOMPARE(session.client.state(), WsState::Reconnecting);
		session.client.disconnectFromServer();
	}

	/** The whole program stands still, longer than the silence that is borne. */
	void timeInWhichTheProgramStoodStillDoesNotCount()
	{
		Session session(trusted);
		session.connect();
		QVERIFY(session.accept());
		session.audio.end();
		hurry(session.client, 50);
		QElapsedTimer timer;
		timer.start();
		const pid_t self = getpid();
		const pid_t waker = fork();
		if (waker == 0) {
			kill(self, SIGSTOP);
			usleep(3000000);
			kill(self, SIGCONT);
			_exit(0);
		}
		QVERIFY(waker > 0);
		QVERIFY(QTest::qWaitFor([waker] { return waitpid(waker, nullptr, WNOHANG) == waker; }, 10000));
		QVERIFY(timer.elapsed() >= 3000);
		QVERIFY(delivered(session.client, session.service));
		QCOMPARE(session.client.state(), WsState::Authenticated);
		QVERIFY(session.log.lines(LOG_WARNING).isEmpty());
		session.client.disconnectFromServer();
	}

	// A closing that does not finish

	/** Qt closes such a connection after 5 s, and would wait for ever for what it has to send. */
	void aServiceThatStopsInMidFrameIsADrop_data() { addPlainAndTls(); }
	void aServiceThatStopsInMidFrameIsADrop()
	{
		QFETCH(bool, secure);
		Session session(secure ? trusted : std::nullopt);
		session.connect();
		QVERIFY(session.accept());
		if (secure) {
			const qint64 before = session.proxy.bytesDown;
			session.proxy.setRate(20000);
			session.service.sendFrame(QByteArray(200000, 'x'));
			QVERIFY(QTest::qWaitFor([&] { return session.proxy.bytesDown > before + 10000; }));
		} else {
			session.proxy.inject(kHalfFrame);
			QVERIFY(QTest::qWaitFor([&] { return session.proxy.bytesDown >= kHalfFrame.size(); }));
		}
		session.proxy.setStalled(true);
		session.proxy.setBlocked(true);
		QVERIFY2(isReconnecting(session.client, 12000), "the closing does not finish");
		QCOMPARE(session.client.socket->state(), QAbstractSocket::UnconnectedState);
		const QString reason = "Timeout when reading data from socket.";
		QCOMPARE(session.reasons(), QStringList{"Error.ConnectionClosed: " + reason});
		QCOMPARE(session.log.lines(LOG_WARNING),
			 (QStringList{"[talvora-obs] WebSocket closed with code 1001: " + reason, kLostLine}));
		session.client.disconnectFromServer();
	}

	/** Each ping is answered, and a service that does not read leaves the answers with the client. */
	void aServiceThatPingsAndDoesNotReadIsADrop()
	{
		Session session;
		session.connect();
		QVERIFY(session.accept());
		session.client.watchTimer->stop();
		session.client.onWatchTick();
		QCOMPARE(session.client.state(), WsState::Authenticated);
		session.proxy.setBlocked(true);
		const QByteArray pings = (QByteArray("\x89\x7d") + QByteArray(125, 'x')).repeated(1000);
		QVERIFY(QTest::qWaitFor(
			[&] {
				session.proxy.inject(pings);
				return session.client.bytesWaiting() > 1024 * 1024;
			},
			20000));
		session.client.silentSeconds = 0;
		session.client.onWatchTick();
		QCOMPARE(session.client.state(), WsState::Reconnecting);
		QCOMPARE(session.client.socket->state(), QAbstractSocket::UnconnectedState);
		QCOMPARE(session.reasons(), QStringList{"Error.NoAnswer"});
		session.client.disconnectFromServer();
	}

	void aServiceThatClosesABackedUpLineIsADrop()
	{
		Session session;
		session.connect();
		QVERIFY(session.accept());
		session.proxy.setBlocked(true);
		QVERIFY(QTest::qWaitFor([&] { return session.client.bytesWaiting() > 10000; }, 20000));
		session.proxy.inject(QByteArray("\x88\x0d\x03\xe9maintenance", 15));
		QVERIFY2(isReconnecting(session.client, 5000), "the closing does not finish");
		QCOMPARE(session.client.socket->state(), QAbstractSocket::UnconnectedState);
		QCOMPARE(session.reasons(), QStringList{"Error.ConnectionClosed: maintenance"});
		session.client.disconnectFromServer();
	}

	// More than the program takes

	/** The thread that takes what the client tells is this one, which takes nothing until it runs its loop. */
	void messagesThatNobodyTakesAreBounded_data()
	{
		QTest::addColumn<bool>("speech");
		QTest::addColumn<int>("bytes");
		QTest::newRow("long texts") << false << 500000;
		QTest::newRow("short texts") << false << 10;
		QTest::newRow("speech") << true << 1000000;
	}
	void messagesThatNobodyTakesAreBounded()
	{
		QFETCH(bool, speech);
		QFETCH(int, bytes);
		Session session;
		session.connect();
		QVERIFY(session.accept());
		// The client's thread is this one, too: where it is slow, audio would overflow, which is logged.
		QVERIFY(QTest::qWaitFor([&] { return session.audio.calls > 0; }));
		session.audio.end();
		WSClient &client = session.client;
		client.onTextMessageReceived(R"({"type":"tts_start","language":"es","clipId":1})");
		QCoreApplication::sendPostedEvents();
		QSignalSpy texts(&client, &WSClient::transcriptInterim);
		QSignalSpy pieces(&client, &WSClient::ttsAudioReady);
		const auto told = [&] { return texts.size() + pieces.size(); };
		const QString text =
			QStringLiteral(R"({"type":"transcript_interim","text":"%1"})").arg(QString(bytes, 'x'));
		const QByteArray frame = "\2es" + QByteArray(bytes, 'x');
		const auto bring = [&] {
			const qsizetype before = told();
			speech ? client.onBinaryMessageReceived(frame) : client.onTextMessageReceived(text);
			return told() > before;
		};
		const int most = 128 * 1024 * 1024 / (speech ? bytes : 2 * bytes);
		int taken = 0;
		while (taken <= std::min(most, 130000) && bring()) {
			++taken;
		}
		QVERIFY2(taken > 100, qPrintable(QString::number(taken)));
		QVERIFY2(taken <= std::min(most, 130000), "there is no bound");
		QVERIFY(!bring());
		QVERIFY(isReconnecting(client, 5000));
		QCOMPARE(session.reasons(), QStringList{"Error.ConnectionClosed: More messages than can be taken."});

		// Then they are taken. An open clip has gone with its connection.
		QCoreApplication::sendPostedEvents();
		QVERIFY(bring() || speech);
		reconnectNow(client);
		session.accepted = 1;
		QVERIFY(session.accept());
		QCOMPARE(session.flawAtTheEnd(), QString());
	}

	// What the service says when it closes

	void whyAConnectionWasClosedIsLoggedAndTold_data()
	{
		QTest::addColumn<int>("code");
		QTest::addColumn<QString>("reason");
		QTest::addColumn<QString>("text");
		QTest::newRow("without a word") << 1000 << "" << "Error.ConnectionClosed (1000)";
		QTest::newRow("going away") << 1001 << "restart" << "Error.ConnectionClosed: restart";
		QTest::newRow("policy") << 1008 << "no more minutes" << "Error.ConnectionClosed: no more minutes";
		QTest::newRow("internal error") << 1011 << "" << "Error.ConnectionClosed (1011)";
		QTest::newRow("of its own")
			<< 4001 << "session elsewhere" << "Error.ConnectionClosed: session elsewhere";
	}
	void whyAConnectionWasClosedIsLoggedAndTold()
	{
		QFETCH(int, code);
		QFETCH(QString, reason);
		QFETCH(QString, text);
		const LogCapture log;
		LoopbackService service(trusted);
		WSClient client;
		QVERIFY(authenticate(client, service));
		const Told told(client);
		service.peer()->close(static_cast<QWebSocketProtocol::CloseCode>(code), reason);
		QVERIFY(isReconnecting(client, 5000));
		QTRY_COMPARE(told.seen, (QStringList{"4", text}));
		QCOMPARE(
			log.lines(LOG_WARNING),
			(QStringList{
				QStringLiteral("[talvora-obs] WebSocket closed with code %1: %2").arg(code).arg(reason),
				kLostLine}));
		QTRY_COMPARE(service.closeCodes, QList<int>{code});
		client.disconnectFromServer();
	}

	/** The service may keep the connection for as long as it likes: the session is over. */
	void nothingIsShownAfterTheEndOfTheSession()
	{
		LoopbackService service;
		WSClient client;
		QVERIFY(authenticate(client, service));
		client.onTextMessageReceived(R"({"type":"tts_start","language":"es","clipId":1})");
		service.send(R"({"type":"session_ended"})");
		QTRY_COMPARE(client.state(), WsState::Disconnected);
		const AllSignals any(client);
		service.send(kAuthOk);
		service.send(R"({"type":"caption","language":"es","text":"late"})");
		service.send(R"({"type":"transcript_interim","text":"late"})");
		service.send(R"({"type":"limit_reached","feature":"late"})");
		service.send(R"({"type":"session_ended"})");
		service.send(R"({"type":"auth_error","error":"late"})");
		service.sendFrame("\2eslate");
		service.send(R"({"type":"tts_end","language":"es"})");
		QSignalSpy pongs(client.socket, &QWebSocket::pong);
		client.socket->ping();
		// It is answered behind all of that.
		QTRY_COMPARE(pongs.size(), 1);
		QCOMPARE(any.total(), 0);
		QVERIFY(!client.sendTimer->isActive());
		QCOMPARE(client.state(), WsState::Disconnected);
		client.disconnectFromServer();
	}

	void authOkThatAnswersNothingIsIgnored()
	{
		const LogCapture log;
		LoopbackService service;
		WSClient client;
		QVERIFY(authenticate(client, service));
		client.sendTimer->stop();
		const auto samples = countingSamples(160);
		client.enqueueAudio(samples.data(), samples.size());
		const AllSignals any(client);
		client.onTextMessageReceived(kAuthOk);
		QCOMPARE(any.total(), 0);
		QCOMPARE(client.audioRing.held(), size_t{320});
		QCOMPARE(log.lines(LOG_INFO).count("[talvora-obs] WSClient: authenticated"), 1);
		client.disconnectFromServer();
		client.onTextMessageReceived(kAuthOk);
		QCOMPARE(client.state(), WsState::Disconnected);
		QVERIFY(!client.sendTimer->isActive());
	}

	void aCloseAfterTheEndOfTheSessionIsLoggedOnly()
	{
		Session session(trusted);
		session.connect();
		QVERIFY(session.accept());
		session.service.send(R"({"type":"session_ended"})");
		QTRY_COMPARE(session.client.state(), WsState::Disconnected);
		session.service.peer()->close(QWebSocketProtocol::CloseCodeNormal, "bye");
		QTRY_COMPARE(session.client.socket->state(), QAbstractSocket::UnconnectedState);
		QCOMPARE(session.log.lines(LOG_INFO).count("[talvora-obs] WebSocket closed with code 1000: bye"), 1);
		QVERIFY(session.log.lines(LOG_WARNING).isEmpty());
		QVERIFY(session.errors.isEmpty());
		QCOMPARE(session.flawAtTheEnd(), QString());
	}

	// What is told comes after what it explains

	void whyFollowsWhat_data()
	{
		QTest::addColumn<QString>("fault");
		for (const char *fault :
		     {"refused", "certificate", "404", "closed in the handshake", "no HTTP", "scheme", "reset",
		      "garbage", "closed", "auth_error", "silence", "too long"}) {
			QTest::newRow(fault) << QString(fault);
		}
	}
	void whyFollowsWhat()
	{
		QFETCH(QString, fault);
		QString url;
		std::unique_ptr<RawServer> raw;
		Session session(fault == "certificate" ? unknownRootServerCertificate() : std::nullopt);
		if (fault == "404") {
			raw = std::make_unique<RawServer>("HTTP/1.1 404 Not Found\r\nContent-Length: 0\r\n\r\n",
							  RawServer::After::Stay);
		} else if (fault == "closed in the handshake") {
			raw = std::make_unique<RawServer>(QByteArray(), RawServer::After::Close);
		} else if (fault == "no HTTP") {
			raw = std::make_unique<RawServer>("220 ready\r\n\r\n", RawServer::After::Close);
		}
		url = raw                  ? raw->url()
		      : fault == "refused" ? "ws://127.0.0.1:1/"
		      : fault == "scheme"  ? "http://x/"
					   : session.url;
		const bool inSession = url == session.url && fault != "certificate";
		if (inSession) {
			session.connect();
			QVERIFY(fault == "auth_error"
					? QTest::qWaitFor([&] { return !session.service.texts.isEmpty(); })
					: session.accept());
		}
		const Told told(session.client);
		if (!inSession) {
			start(session.client, url);
		} else if (fault == "reset") {
			session.proxy.reset();
		} else if (fault == "garbage") {
			session.proxy.inject(QByteArray(64, '\xff'));
		} else if (fault == "closed") {
			session.service.peer()->close();
		} else if (fault == "auth_error") {
			session.service.send(R"({"type":"auth_error","error":"no"})");
		} else if (fault == "too long") {
			session.service.send(QString(2 * 1024 * 1024, 'x'));
		} else {
			session.proxy.setStalled(true);
			hurry(session.client, 20);
		}
		const QString state = fault == "auth_error" ? "0" : "4";
		QTRY_COMPARE(told.seen.size(), inSession ? 2 : 3);
		QCOMPARE(told.seen[told.seen.size() - 2], state);
		QVERIFY(told.seen.last().size() > 1);
		session.proxy.setStalled(false);
		QCOMPARE(session.flawAtTheEnd(), QString());
	}

	// What a connection inherits

	void aFrameThatWasCutOffDoesNotEndTheNextConnection()
	{
		Session session;
		session.connect();
		QVERIFY(session.accept());
		session.proxy.inject(kHalfFrame);
		QVERIFY(QTest::qWaitFor([&] { return session.proxy.bytesDown >= kHalfFrame.size(); }));
		session.proxy.reset();
		QVERIFY(session.lost());
		reconnectNow(session.client);
		QVERIFY(session.accept());
		// Qt waits 5 s for the rest of a frame.
		QVERIFY(!QTest::qWaitFor([&] { return session.client.state() != WsState::Authenticated; }, 5500));
		QCOMPARE(session.client.state(), WsState::Authenticated);
		QCOMPARE(session.proxy.connections, 2);
		QVERIFY(session.goesOn());
		QCOMPARE(session.flawAtTheEnd(), QString());
	}

	void eachFailureHasItsOwnReason()
	{
		RawServer forbidden("HTTP/1.1 403 Forbidden\r\nContent-Length: 0\r\n\r\n", RawServer::After::Close);
		RawServer plain("220 ready\r\n", RawServer::After::Close);
		WSClient client;
		QSignalSpy errors(&client, &WSClient::errorOccurred);
		const auto reasonOf = [&](const QString &url) {
			errors.clear();
			start(client, url);
			return QTest::qWaitFor([&] { return !errors.isEmpty(); }) ? errors.first().first().toString()
										  : QString();
		};
		const QString first = reasonOf(forbidden.url());
		QVERIFY2(first.contains("403"), qPrintable(first));
		QCOMPARE(reasonOf("ws://127.0.0.1:1/"), "Connection refused");
		const QString third = reasonOf(plain.url("wss"));
		QVERIFY2(!third.isEmpty() && !third.contains("403") && third != "Connection refused",
			 qPrintable(third));
		client.disconnectFromServer();
	}

	void stoppingTellsNothingOfAnEarlierConnection()
	{
		Session session;
		session.connect();
		QVERIFY(session.accept());
		session.proxy.inject(QByteArray(64, '\xff'));
		QVERIFY(session.lost());
		QTRY_COMPARE(session.errors.size(), 1);
		reconnectNow(session.client);
		QVERIFY(session.accept());
		QVERIFY(session.goesOn());
		const QStringList lines = session.log.ownLines();
		QCOMPARE(session.flawAtTheEnd(), QString());
		QCOMPARE(session.log.ownLines(), lines);
		QCOMPARE(session.errors.size(), 1);
	}
};

QTEST_GUILESS_MAIN(WSClientTest)
#include "ws-client-drops-test.moc"
