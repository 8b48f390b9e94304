// SPDX-License-Identifier: GPL-2.0-or-later
#include "client/ws-client.h"

#include "fault-session.h"
#include "test-certificates.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFileInfo>
#include <QNetworkProxy>
#include <QSignalSpy>
#include <QTest>
#include <QTimer>
#include <QUrl>
#include <QWebSocket>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstring>
#include <ctime>
#include <memory>
#include <optional>
#include <thread>
#include <vector>

#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr const char *kConnectedLine = "[talvora-obs] WebSocket connected — sending auth";
constexpr const char *kAuthenticatedLine = "[talvora-obs] WSClient: authenticated";
constexpr const char *kLostLine = "[talvora-obs] WebSocket disconnected unexpectedly — scheduling reconnect";
constexpr const char *kWaitLine = "[talvora-obs] WSClient: reconnecting in 1000 ms (attempt 1)";
constexpr const char *kAgainLine = "[talvora-obs] WSClient: reconnect attempt 2/5";

QString connectingLine(const QString &url)
{
	return QStringLiteral("[talvora-obs] WSClient: connecting to %1").arg(url);
}

QString errorLine(int error, const QString &reason)
{
	return QStringLiteral("[talvora-obs] WebSocket error %1: %2").arg(error).arg(reason);
}

QString closeLine(int code, const QString &reason)
{
	return QStringLiteral("[talvora-obs] WebSocket closed with code %1: %2").arg(code).arg(reason);
}

QString closeText(const QString &reason)
{
	return QStringLiteral("Error.ConnectionClosed") + QStringLiteral(": ") + reason;
}

/** How far the machine's clock has jumped since the program started, seconds. */
std::atomic<time_t> clockJump = 0;

/** What the program has open. */
QStringList openDescriptors()
{
	QStringList open;
	const QFileInfoList entries =
		QDir(QStringLiteral("/proc/self/fd")).entryInfoList(QDir::System | QDir::Files | QDir::NoDotAndDotDot);
	for (const QFileInfo &entry : entries) {
		open.append(entry.fileName() + u' ' + entry.symLinkTarget());
	}
	return open;
}

} // namespace

// The clock that Qt, OpenSSL and the program read: the machine's, moved by what the test says.
extern "C" [[gnu::visibility("default")]] int clock_gettime(clockid_t clock, timespec *read) noexcept
{
	const auto result = static_cast<int>(syscall(SYS_clock_gettime, clock, read));
	if (result == 0 && (clock == CLOCK_REALTIME || clock == CLOCK_REALTIME_COARSE)) {
		read->tv_sec += clockJump;
	}
	return result;
}
extern "C" [[gnu::visibility("default")]] time_t time(time_t *result) noexcept
{
	timespec now{};
	clock_gettime(CLOCK_REALTIME, &now);
	if (result) {
		*result = now.tv_sec;
	}
	return now.tv_sec;
}

/** What the network, the service and the machine can do to a session. */
class WSClientTest : public QObject {
	Q_OBJECT

	/** What is logged of a session that is lost once, for `reason`, and comes back. */
	static QStringList lostOnce(const Session &session, const QStringList &reason)
	{
		return QStringList{connectingLine(session.url), kConnectedLine, kAuthenticatedLine} + reason +
		       QStringList{kLostLine, kWaitLine, kAgainLine, kConnectedLine, kAuthenticatedLine};
	}

	std::optional<QSslConfiguration> trusted;
	QStringList descriptors;

private Q_SLOTS:
	void initTestCase()
	{
		trusted = trustedServerCertificate("localhost");
		QVERIFY2(trusted, "mkcert is needed");
		// The first session makes what Qt and OpenSSL keep to the end, and looks functions up.
		Session session(trusted);
		session.connect();
		QVERIFY(session.accept());
		QVERIFY(session.goesOn());
	}

	void init() { descriptors = openDescriptors(); }

	void cleanup()
	{
		QNetworkProxy::setApplicationProxy(QNetworkProxy());
		clockJump = 0;
		const auto left = [this] { return openDescriptors().size() - descriptors.size(); };
		if (!QTest::qWaitFor([&] { return left() <= 0; })) {
			QFAIL(qPrintable("left open; before: " + descriptors.join(", ") +
					 "; now: " + openDescriptors().join(", ")));
		}
	}

	// The way there

	void refusedConnectionsAreRetriedUntilTheServiceIsBack()
	{
		Session session(trusted);
		session.proxy.refuse();
		session.connect();
		QVERIFY(session.lost());
		QTRY_COMPARE(session.reasons(), QStringList{"Connection refused"});
		session.proxy.listenAgain();
		reconnectNow(session.client);
		QVERIFY(session.accept());
		QVERIFY(session.goesOn());
		QCOMPARE(session.states.seen,
			 (QList<int>{kConnecting, kReconnecting, kConnecting, kConnected, kAuthenticated}));
		// The order of the first two is Qt's.
		QCOMPARE(session.log.ownLines(), (QStringList{connectingLine(session.url), kLostLine, kWaitLine,
							      errorLine(0, "Connection refused"), kAgainLine,
							      kConnectedLine, kAuthenticatedLine}));
		QCOMPARE(session.flawAtTheEnd(), QString());
	}

	void unknownNameIsSaid()
	{
		Session session;
		start(session.client, "wss://no-such-host.invalid:3002/ws/audio-pipeline");
		QVERIFY(session.lost());
		QVERIFY(QTest::qWaitFor([&] { return !session.errors.isEmpty(); }));
		QCOMPARE(session.reasons(), QStringList{"Host not found"});
		QCOMPARE(session.log.lines(LOG_WARNING), (QStringList{kLostLine, errorLine(2, "Host not found")}));
		QCOMPARE(session.flawAtTheEnd(), QString());
	}

	void silentServiceIsGivenUpAfterAMinute_data()
	{
		QTest::addColumn<bool>("secure");
		QTest::newRow("plain") << false;
		QTest::newRow("TLS") << true;
	}
	void silentServiceIsGivenUpAfterAMinute()
	{
		QFETCH(bool, secure);
		Session session(secure ? trusted : std::nullopt);
		session.proxy.setSilent(true);
		session.connect();
		QVERIFY(QTest::qWaitFor([&] { return session.proxy.connections == 1; }));
		QVERIFY(session.client.watchTimer->isActive());
		QCOMPARE(session.client.watchTimer->interval(), 1000);
		QVERIFY(!session.client.watchTimer->isSingleShot());
		session.client.watchTimer->stop();
		session.client.unansweredSeconds = 0;
		for (int second = 1; second <= 59; ++second) {
			session.client.onWatchTick();
		}
		QCOMPARE(session.client.state(), WsState::Connecting);

		// The minute is over.
		session.client.onWatchTick();
		QVERIFY(session.lost());
		QVERIFY(!session.client.watchTimer->isActive());
		session.proxy.setSilent(false);
		reconnectNow(session.client);
		QVERIFY(session.client.watchTimer->isActive());
		QVERIFY(session.accept());
		QVERIFY(session.goesOn());
		QCOMPARE(session.reasons(), QStringList{"Error.NoAnswer"});
		QCOMPARE(session.log.ownLines(),
			 (QStringList{connectingLine(session.url),
				      "[talvora-obs] WebSocket error 5: The service does not answer", kLostLine,
				      kWaitLine, kAgainLine, kConnectedLine, kAuthenticatedLine}));
		QCOMPARE(session.flawAtTheEnd(), QString());
	}

	void stoppingEndsAHandshakeThatHangs()
	{
		Session session(trusted);
		session.proxy.setSilent(true);
		session.connect();
		QVERIFY(QTest::qWaitFor([&] { return session.proxy.connections == 1; }));
		QCOMPARE(session.flawAtTheEnd(), QString());
		QVERIFY(!session.client.watchTimer->isActive());
		QVERIFY(session.log.lines(LOG_WARNING).isEmpty());
	}

	void aServiceOnIpv6AloneIsReached_data()
	{
		QTest::addColumn<QString>("host");
		QTest::newRow("by number") << "[::1]";
		QTest::newRow("by name") << "localhost";
	}
	void aServiceOnIpv6AloneIsReached()
	{
		QFETCH(QString, host);
		Session session(std::nullopt, QHostAddress::LocalHostIPv6, host);
		session.connect();
		QVERIFY(session.accept());
		QVERIFY(session.goesOn());
		QCOMPARE(session.states.seen, (QList<int>{kConnecting, kConnected, kAuthenticated}));
		QCOMPARE(session.flawAtTheEnd(), QString());
	}

	// TLS

	void aServiceThatCannotBeTrustedIsRefused_data()
	{
		QTest::addColumn<QString>("certificate");
		QTest::addColumn<QString>("reason");
		QTest::newRow("expired") << "expired"
					 << "The certificate has expired";
		QTest::newRow("wrong name")
			<< "wrong name" << "The host name did not match any of the valid hosts for this certificate";
		QTest::newRow("unknown root")
			<< "unknown root"
			<< "The issuer certificate of a locally looked up certificate could not be found";
	}
	void aServiceThatCannotBeTrustedIsRefused()
	{
		QFETCH(QString, certificate);
		QFETCH(QString, reason);
		const auto chosen = certificate == "expired"      ? expiredServerCertificate()
				    : certificate == "wrong name" ? trustedServerCertificate("elsewhere.example")
								  : unknownRootServerCertificate();
		QVERIFY2(chosen, "mkcert and openssl are needed");
		Session session(chosen);
		session.connect();
		QVERIFY(session.lost());
		QCOMPARE(session.reasons(), QStringList{reason});
		QCOMPARE(session.log.ownLines(),
			 (QStringList{connectingLine(session.url), errorLine(13, reason), kLostLine, kWaitLine}));
		QVERIFY2(session.service.texts.isEmpty(), "the credential was sent");
		QCOMPARE(session.flawAtTheEnd(), QString());
	}

	void aServiceWithAnOldTlsIsRefused_data()
	{
		QTest::addColumn<QByteArray>("version");
		QTest::newRow("SSL 3") << QByteArray("\x03\x00", 2);
		QTest::newRow("TLS 1.0") << QByteArray("\x03\x01", 2);
		QTest::newRow("TLS 1.1") << QByteArray("\x03\x02", 2);
	}
	void aServiceWithAnOldTlsIsRefused()
	{
		QFETCH(QByteArray, version);
		// A server's answer to the client's greeting: that version, no session, RSA with AES.
		const QByteArray hello = version + QByteArray(32, '\x5a') + QByteArray("\x00\x00\x2f\x00", 4);
		const QByteArray handshake = QByteArray("\x02\x00\x00", 3) + static_cast<char>(hello.size()) + hello;
		const QByteArray record =
			QByteArray("\x16") + version + '\0' + static_cast<char>(handshake.size()) + handshake;
		const LogCapture log;
		RawServer old(record, RawServer::After::Stay);
		WSClient client;
		const QSignalSpy errors(&client, &WSClient::errorOccurred);
		AudioThread audio(client);
		start(client, old.url("wss"));
		QVERIFY(QTest::qWaitFor([&] { return client.state() == WsState::Reconnecting; }));
		QCOMPARE(errors.size(), 1);
		QVERIFY2(errors.first().first().toString().contains("unsupported protocol"),
			 qPrintable(errors.first().first().toString()));
		QCOMPARE(log.ownLines(),
			 (QStringList{connectingLine(old.url("wss")), errorLine(13, errors.first().first().toString()),
				      kLostLine, kWaitLine}));
		client.disconnectFromServer();
		audio.end();
		QCOMPARE(audio.waits.load(), 0);
	}

	// A proxy in the way

	/** The machine itself is never reached through a proxy. */
	void aProxyThatSaysNoIsSaid()
	{
		RawServer gate("HTTP/1.1 403 Forbidden\r\nContent-Length: 0\r\n\r\n", RawServer::After::Close);
		Session session(trusted);
		QNetworkProxy::setApplicationProxy(QNetworkProxy(QNetworkProxy::HttpProxy, "127.0.0.1",
								 static_cast<quint16>(QUrl(gate.url()).port())));
		start(session.client, "wss://service.example:3002/ws/audio-pipeline");
		QVERIFY(session.lost());
		QVERIFY(QTest::qWaitFor([&] { return !session.errors.isEmpty(); }));
		QCOMPARE(gate.connections, 1);
		QCOMPARE(session.reasons(), QStringList{"Proxy denied connection"});
		QCOMPARE(session.log.lines(LOG_WARNING),
			 (QStringList{kLostLine, errorLine(3, "Proxy denied connection")}));
		QNetworkProxy::setApplicationProxy(QNetworkProxy());
		QCOMPARE(session.flawAtTheEnd(), QString());
	}

	/** Qt asks the environment for programs that want it to, and OBS does not. */
	void aProxyOfTheEnvironmentIsNotAsked()
	{
		RawServer gate("HTTP/1.1 403 Forbidden\r\nContent-Length: 0\r\n\r\n", RawServer::After::Close);
		const std::vector<const char *> names{"http_proxy", "https_proxy", "all_proxy"};
		for (const char *name : names) {
			qputenv(name, gate.url("http").toUtf8());
		}
		Session session(trusted);
		start(session.client, "wss://service.example:3002/ws/audio-pipeline");
		const bool lost = session.lost() && QTest::qWaitFor([&] { return !session.errors.isEmpty(); });
		for (const char *name : names) {
			qunsetenv(name);
		}
		QVERIFY(lost);
		QCOMPARE(gate.connections, 0);
		QCOMPARE(session.reasons(), QStringList{"Host not found"});
		QCOMPARE(session.flawAtTheEnd(), QString());
	}

	// A session that is lost, and comes back

	void aLostSessionComesBack_data()
	{
		QTest::addColumn<QString>("fault");
		QTest::addColumn<bool>("secure");
		QTest::addColumn<QString>("line");
		QTest::addColumn<QString>("reason");
		const QString closed = "The remote host closed the connection";
		const QString garbled = "Rsv field is non-zero";
		const QString tooLong = "Received message is too big.";
		const auto row = [](const char *fault, bool secure, const QString &line, const QString &reason) {
			QTest::addRow("%s%s", fault, secure ? ", TLS" : "")
				<< QString(fault) << secure << line << reason;
		};
		for (const bool secure : {false, true}) {
			row("reset", secure, errorLine(1, closed), closed);
			row("half-close", secure, errorLine(1, closed), closed);
			row("oversized frame", secure, closeLine(1009, tooLong), closeText(tooLong));
			row("oversized message", secure, closeLine(1009, tooLong), closeText(tooLong));
		}
		row("garbage", false, closeLine(1002, garbled), closeText(garbled));
		row("garbage", true,
		    "[talvora-obs] WebSocket error 20: Error while reading: ", "Error while reading: ");
	}
	void aLostSessionComesBack()
	{
		QFETCH(QString, fault);
		QFETCH(bool, secure);
		QFETCH(QString, line);
		QFETCH(QString, reason);
		Session session(secure ? trusted : std::nullopt);
		session.connect();
		QVERIFY(session.accept());
		QVERIFY(session.goesOn());
		if (fault == "reset") {
			session.proxy.reset();
		} else if (fault == "half-close") {
			session.proxy.halfClose();
		} else if (fault == "garbage") {
			session.proxy.inject(QByteArray(64, '\xff'));
		} else if (fault == "oversized frame") {
			session.service.sendFrame(QByteArray(32 * 1024 * 1024 + 1, 'x'));
		} else {
			session.service.send(QString(4 * 1024 * 1024, 'x'));
		}
		QVERIFY(session.lost());
		reconnectNow(session.client);
		QVERIFY(session.accept());
		QVERIFY(session.goesOn());
		QCOMPARE(session.states.seen, (QList<int>{kConnecting, kConnected, kAuthenticated, kReconnecting,
							  kConnecting, kConnected, kAuthenticated}));
		const QStringList lines = session.log.ownLines();
		// Through TLS, Qt may have read the next frame of a message before it tells what was wrong with it.
		const QString readOn = "Received Continuation frame, while there is nothing to continue.";
		if (secure && fault == "oversized message" && lines.value(3) == closeLine(1002, readOn)) {
			line = closeLine(1002, readOn);
			reason = closeText(readOn);
		}
		// What TLS cannot read is described by the library in its own words.
		QVERIFY2(lines.value(3).startsWith(line), qPrintable(lines.value(3)));
		QCOMPARE(lines, lostOnce(session, {lines.value(3)}));
		QCOMPARE(session.errors.size(), 1);
		QVERIFY2(session.reasons().first().startsWith(reason), qPrintable(session.reasons().first()));

		// Why the last connection ended is no reason of the next one's end.
		session.proxy.reset();
		QVERIFY(session.lost());
		QCOMPARE(session.log.ownLines().sliced(lines.size()),
			 (QStringList{errorLine(1, "The remote host closed the connection"), kLostLine, kWaitLine}));
		QCOMPARE(session.flawAtTheEnd(), QString());
	}

	// A line that is slow

	void aStallLosesNothing_data()
	{
		QTest::addColumn<bool>("secure");
		QTest::newRow("plain") << false;
		QTest::newRow("TLS") << true;
	}
	void aStallLosesNothing()
	{
		QFETCH(bool, secure);
		Session session(secure ? trusted : std::nullopt);
		session.connect();
		QVERIFY(session.accept());
		const int callsBefore = session.audio.calls;
		QSignalSpy interim(&session.client, &WSClient::transcriptInterim);
		session.proxy.setStalled(true);
		session.service.send(R"({"type":"transcript_interim","text":"late"})");
		QVERIFY(QTest::qWaitFor([&] { return session.audio.calls > callsBefore + 100; }));
		QVERIFY(interim.isEmpty());
		QVERIFY(session.service.frames.size() < 100);
		session.proxy.setStalled(false);
		QVERIFY(QTest::qWaitFor([&] { return !interim.isEmpty(); }));
		session.audio.end();
		QVERIFY(QTest::qWaitFor(
			[&] { return session.service.frames.size() >= session.audio.calls - callsBefore; }));
		const QByteArray whole = bytesOf(countingSamples(160));
		QCOMPARE(session.service.frames.count(whole), session.service.frames.size());
		QCOMPARE(session.states.seen, (QList<int>{kConnecting, kConnected, kAuthenticated}));
		QVERIFY(session.log.lines(LOG_WARNING).isEmpty());
		QCOMPARE(session.flawAtTheEnd(), QString());
	}

	void aDelayChangesNothingButTheTime()
	{
		Session session(trusted);
		session.proxy.setDelay(100);
		session.connect();
		QVERIFY(session.accept());
		QSignalSpy interim(&session.client, &WSClient::transcriptInterim);
		QElapsedTimer timer;
		timer.start();
		for (int i = 0; i < 10; ++i) {
			session.service.send(QStringLiteral(R"({"type":"transcript_interim","text":"%1"})").arg(i));
		}
		QVERIFY(QTest::qWaitFor([&] { return interim.size() == 10; }));
		QVERIFY(timer.elapsed() >= 100);
		for (int i = 0; i < 10; ++i) {
			QCOMPARE(interim[i].first().toString(), QString::number(i));
		}
		QVERIFY(session.goesOn());
		QVERIFY(session.log.lines(LOG_WARNING).isEmpty());
		QCOMPARE(session.flawAtTheEnd(), QString());
	}

	/** Far less than the 32 kB/s of the audio: what comes down still arrives, and the user can stop. */
	void aThousandBytesASecondAreBorne()
	{
		Session session;
		session.proxy.setRate(1000);
		session.connect();
		QVERIFY(session.accept());
		const qint64 before = session.proxy.bytesUp;
		QElapsedTimer timer;
		timer.start();
		QVERIFY(delivered(session.client, session.service));
		QVERIFY(QTest::qWaitFor([&] { return session.audio.calls > 150; }));
		QCOMPARE(session.client.state(), WsState::Authenticated);
		const qint64 passed = session.proxy.bytesUp - before;
		QVERIFY2(passed > 0 && passed <= timer.elapsed() + 100, qPrintable(QString::number(passed)));
		// What the line cannot take yet waits on its way, not in the ring.
		session.audio.end();
		QVERIFY(QTest::qWaitFor([&] { return session.client.audioRing.held() == 0; }));
		QVERIFY(session.log.lines(LOG_WARNING).isEmpty());
		QCOMPARE(session.flawAtTheEnd(), QString());
	}

	// Frames in pieces

	void messagesArriveInWhateverPieces_data()
	{
		QTest::addColumn<int>("pieces");
		QTest::newRow("a byte at a time") << 1;
		QTest::newRow("seven bytes at a time") << 7;
		QTest::newRow("all in one segment") << 0;
	}
	void messagesArriveInWhateverPieces()
	{
		QFETCH(int, pieces);
		Session session;
		session.connect();
		QVERIFY(session.accept());
		QSignalSpy captions(&session.client, &WSClient::captionUpdated);
		QSignalSpy speech(&session.client, &WSClient::ttsAudioReady);
		session.proxy.setPieces(pieces);
		session.proxy.setHeld(true);
		const QString start = R"({"type":"tts_start","language":"es","clipId":5,"sampleRate":22050})";
		const QString caption = R"({"type":"caption","language":"es","text":"Hola","duration":1.5,"clipId":5})";
		const QString end = R"({"type":"tts_end","language":"es"})";
		session.service.send(start);
		session.service.sendFrame("\2esabcd");
		session.service.sendFrame("\2esefg");
		session.service.send(caption);
		session.service.sendFrame("\2esh");
		session.service.send(end);
		// All six are there, each behind a head of two bytes.
		const qint64 all = start.size() + 7 + 6 + caption.size() + 4 + end.size() + qint64{6 * 2};
		QVERIFY(QTest::qWaitFor([&] { return session.proxy.waitingDown() == all; }));
		session.proxy.setHeld(false);
		QVERIFY(QTest::qWaitFor([&] { return speech.size() == 4; }));
		QCOMPARE(captions.size(), 1);
		QCOMPARE(captions.first(), (QList<QVariant>{"es", "Hola", 1.5, 5}));
		QList<QByteArray> pcm;
		for (const QList<QVariant> &piece : speech) {
			QCOMPARE(piece[0].toString(), "es");
			QCOMPARE(piece[1].toInt(), 5);
			QCOMPARE(piece[3].toInt(), 22050);
			pcm.append(piece[2].toByteArray());
		}
		QCOMPARE(pcm, (QList<QByteArray>{"abcd", "ef", "gh", ""}));
		QCOMPARE(session.flawAtTheEnd(), QString());
	}

	// The machine

	/** The client's thread gets no time for a minute of audio, as on a machine that is suspended or overloaded. */
	void aMinuteWithoutTimeGoesOnWithFreshAudio()
	{
		Session session(trusted);
		session.connect();
		QVERIFY(session.accept());
		session.audio.end();
		QVERIFY(QTest::qWaitFor([&] { return session.client.audioRing.held() == 0; }));
		session.proxy.setHeld(false);
		// Behind all audio that was under way.
		const qsizetype texts = session.service.texts.size();
		session.client.updateConfig({}, "original");
		QVERIFY(QTest::qWaitFor([&] { return session.service.texts.size() > texts; }));
		const qsizetype before = session.service.frames.size();

		std::vector<int16_t> minute = countingSamples(60 * 16000);
		std::thread audio([&] {
			for (size_t at = 0; at < minute.size(); at += 320) {
				session.client.enqueueAudio(minute.data() + at, 320);
			}
		});
		audio.join();
		QCOMPARE(session.client.audioRing.held(), size_t{262144});
		QCOMPARE(session.log.lines(LOG_DEBUG),
			 QStringList{"[talvora-obs] WSClient: ring buffer full, dropped 256 of 640 bytes"});

		QVERIFY(QTest::qWaitFor([&] { return session.client.audioRing.held() == 0; }));
		const auto fresh = countingSamples(160, 20000);
		session.client.enqueueAudio(fresh.data(), fresh.size());
		QVERIFY(QTest::qWaitFor([&] { return session.service.frames.size() > before; }));
		QCOMPARE(session.service.frames.sliced(before), QList<QByteArray>{bytesOf(fresh)});
		QCOMPARE(session.states.seen, (QList<int>{kConnecting, kConnected, kAuthenticated}));
		QCOMPARE(session.log.lines(LOG_WARNING),
			 QStringList{"[talvora-obs] WSClient: the line is too slow, dropped 262144 bytes of audio"});
		QCOMPARE(session.flawAtTheEnd(), QString());
	}

	/** What was said meanwhile is not sent afterwards: whoever hears it would stay behind for good. */
	void afterAStallTheServiceHearsTheNewest_data()
	{
		QTest::addColumn<bool>("secure");
		QTest::newRow("plain") << false;
		QTest::newRow("TLS") << true;
	}
	void afterAStallTheServiceHearsTheNewest()
	{
		QFETCH(bool, secure);
		Session session(secure ? trusted : std::nullopt);
		session.connect();
		QVERIFY(session.accept());
		QVERIFY(session.goesOn());
		session.audio.end();
		QVERIFY(QTest::qWaitFor([&] { return session.client.audioRing.held() == 0; }));
		QVERIFY(delivered(session.client, session.service));
		session.service.frames.clear();
		session.proxy.setBlocked(true);
		// Ten minutes in pieces of half a second, each of a value of its own.
		constexpr int kPieces = 1200;
		qint64 mostWaiting = 0;
		for (int piece = 1; piece <= kPieces; ++piece) {
			const std::vector<int16_t> half(8000, static_cast<int16_t>(piece));
			session.client.enqueueAudio(half.data(), half.size());
			session.client.onSendTimerTick();
			mostWaiting = std::max(mostWaiting, session.client.bytesWaiting());
			if (piece % 50 == 0) {
				QTest::qWait(1);
			}
		}
		QVERIFY2(mostWaiting < 36000, qPrintable(QString::number(mostWaiting)));
		session.proxy.setBlocked(false);
		QTRY_COMPARE_WITH_TIMEOUT(session.client.audioRing.held(), size_t{0}, 20000);
		QTRY_VERIFY_WITH_TIMEOUT(session.client.bytesWaiting() == 0, 20000);
		const auto values = [&session] {
			const QByteArray all = session.service.frames.join();
			QList<int> seen;
			for (qsizetype at = 0; at + 1 < all.size(); at += 2) {
				int16_t value = 0;
				memcpy(&value, all.constData() + at, 2);
				seen.append(value);
			}
			return seen;
		};
		QTRY_COMPARE_WITH_TIMEOUT(values().last(), kPieces, 20000);
		const QList<int> heard = values();
		const auto old =
			std::count_if(heard.begin(), heard.end(), [](int value) { return value <= kPieces - 16; });
		// What had been under way in the client, in the system on both sides and in the proxy.
		QVERIFY2(old < qsizetype{4 * 16000}, qPrintable(QString::number(old)));
		QCOMPARE(session.client.state(), WsState::Authenticated);
		session.client.disconnectFromServer();
	}

	void aSuspendedProgramGoesOn_data()
	{
		QTest::addColumn<bool>("waiting");
		QTest::newRow("in a session") << false;
		QTest::newRow("while it waits to reconnect") << true;
	}
	void aSuspendedProgramGoesOn()
	{
		QFETCH(bool, waiting);
		Session session(trusted);
		session.connect();
		QVERIFY(session.accept());
		if (waiting) {
			session.proxy.reset();
			QVERIFY(session.lost());
		}
		QElapsedTimer timer;
		timer.start();
		const pid_t self = getpid();
		const pid_t waker = fork();
		if (waker == 0) {
			kill(self, SIGSTOP);
			usleep(1000000);
			kill(self, SIGCONT);
			_exit(0);
		}
		QVERIFY(waker > 0);
		QVERIFY(QTest::qWaitFor([waker] { return waitpid(waker, nullptr, WNOHANG) == waker; }));
		QVERIFY(timer.elapsed() >= 1000);
		if (waiting) {
			QVERIFY(session.accept());
		}
		QVERIFY(session.goesOn());
		QCOMPARE(session.log.lines(LOG_WARNING).size(), waiting ? 2 : 0);
		QCOMPARE(session.client.state(), WsState::Authenticated);
		// A call that was under way was put to sleep with the program.
		session.audio.waits = 0;
		QCOMPARE(session.flawAtTheEnd(), QString());
	}

	void aJumpOfTheClockChangesNothing_data()
	{
		QTest::addColumn<qint64>("seconds");
		QTest::newRow("a day on") << qint64{86400};
		QTest::newRow("a day back") << qint64{-86400};
		QTest::newRow("ten years on") << qint64{315360000};
	}
	void aJumpOfTheClockChangesNothing()
	{
		QFETCH(qint64, seconds);
		Session session(trusted);
		session.connect();
		QVERIFY(session.accept());
		clockJump = seconds;
		QVERIFY(session.goesOn());
		QVERIFY(session.log.lines(LOG_WARNING).isEmpty());

		QElapsedTimer timer;
		timer.start();
		session.proxy.reset();
		QVERIFY(session.lost());
		clockJump = 0;
		QVERIFY(session.accept());
		QVERIFY2(timer.elapsed() >= 990 && timer.elapsed() < 4000,
			 "the wait is the clock's and not the time's");
		QVERIFY(session.goesOn());
		QCOMPARE(session.flawAtTheEnd(), QString());
	}

	void aClockThatIsWrongByYearsIsSaid()
	{
		Session session(trusted);
		clockJump = 315360000;
		session.connect();
		QVERIFY(session.lost());
		QCOMPARE(session.reasons(), QStringList{"The certificate has expired"});
		clockJump = 0;
		reconnectNow(session.client);
		QVERIFY(session.accept());
		QCOMPARE(session.flawAtTheEnd(), QString());
	}
};

QTEST_GUILESS_MAIN(WSClientTest)
#include "ws-client-faults-test.moc"
