// SPDX-License-Identifier: GPL-3.0-or-later
#include "base/clock.h"
#include "certificate.h"
#include "server.h"
#include "test-client.h"
#include "tls.h"

#include <QJsonDocument>
#include <QSslSocket>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <QTest>

#include <algorithm>
#include <atomic>

namespace {

/** Instead of words, each sample is an order to the recogniser. */
constexpr char kStart = 1;
constexpr char kPartial = 2;
constexpr char kEnd = 3;
constexpr char kMumble = 4;

class FakeRecogniser : public Recogniser {
public:
	void process(std::span<const int16_t> samples, RecogniserListener &listener) override
	{
		for (const int16_t order : samples) {
			if (order == kStart) {
				listener.utteranceStarted();
			} else if (order == kPartial) {
				listener.partialWords("i am");
			} else if (order == kEnd) {
				listener.utteranceEnded("i am here", 3.0, monotonicMs());
			} else if (order == kMumble) {
				listener.utteranceEnded("", 1.0, monotonicMs());
			}
		}
	}
};

class FakeTranslator : public Translator {
public:
	[[nodiscard]] bool canTranslate(const QString &language) const override
	{
		return language == "es" || language == "fr" || language == "it";
	}
	void prepare(const QString &) override { ++prepared; }
	// The Italian engine is out of order.
	std::optional<QString> translate(const QString &sentence, const QString &language) override
	{
		return language == "it" ? std::nullopt : std::make_optional(language + ": " + sentence);
	}

	static inline std::atomic<int> prepared = 0;
};

class FakeSynthesiser : public Synthesiser {
public:
	[[nodiscard]] bool hasVoice(const QString &language) const override { return language != "fil"; }
	std::optional<SpeechClip> synthesise(const QString &, const QString &) override
	{
		return SpeechClip{QByteArray(2 * 22050 * 3, '\5'), 22050};
	}
};

QByteArray orders(std::initializer_list<char> list)
{
	QByteArray pcm;
	for (const char order : list) {
		pcm.append(order);
		pcm.append('\0');
	}
	return pcm;
}

const QByteArray kUtterance = orders({kStart, kPartial, kEnd});

} // namespace

class SessionTest : public QObject {
	Q_OBJECT

	Certificate certificate;
	QTemporaryDir dir;
	std::unique_ptr<EngineRoom> engines;
	std::unique_ptr<EventLog> events;
	std::unique_ptr<Recorder> recorder;
	std::unique_ptr<Server> server;

	void serve(int maxTargetLanguages = 0, int authTimeoutMs = 10000, bool recogniser = true,
		   const std::optional<script::Script> &script = std::nullopt)
	{
		server.reset();
		QString error;
		const auto tls = loadTls(certificate.file(), certificate.keyFile(), &error);
		QVERIFY2(tls, qPrintable(error));
		engines = std::make_unique<EngineRoom>(
			[recogniser]() -> std::unique_ptr<Recogniser> {
				return recogniser ? std::make_unique<FakeRecogniser>() : nullptr;
			},
			std::make_unique<FakeTranslator>(), std::make_unique<FakeSynthesiser>());
		events = std::make_unique<EventLog>();
		QVERIFY(events->open(dir.filePath("events")));
		recorder = std::make_unique<Recorder>();
		QVERIFY(recorder->open(dir.filePath("record")));
		Server::Settings settings;
		settings.session.key = "tak_live_local";
		settings.session.maxTargetLanguages = maxTargetLanguages;
		settings.session.authTimeoutMs = authTimeoutMs;
		settings.script = script;
		server = std::make_unique<Server>(*tls, settings, engines.get(), *events, *recorder);
		QVERIFY2(server->listen(0), qPrintable(server->errorString()));
	}

	TestClient client() { return TestClient(certificate.clientTls()); }

	QList<QJsonObject> lines(const QString &name) const
	{
		QFile file(dir.filePath(name));
		QList<QJsonObject> result;
		if (file.open(QIODevice::ReadOnly)) {
			for (const QByteArray &line : file.readAll().split('\n')) {
				if (!line.isEmpty()) {
					result.append(QJsonDocument::fromJson(line).object());
				}
			}
		}
		return result;
	}

	qsizetype count(const QString &event) const
	{
		const QList<QJsonObject> all = lines("events");
		return std::count_if(all.begin(), all.end(),
				     [&](const QJsonObject &line) { return line.value("event") == event; });
	}

	bool happened(const QString &event) const { return count(event) > 0; }

	// That everything sent before has been dealt with: a new session of another client works.
	void verifyServing()
	{
		TestClient other = client();
		QVERIFY2(other.start(server->url(), {wants("es", false, true)}),
			 "the service does not answer any more");
		other.sendAudio(kUtterance);
		QVERIFY2(other.waitFor("caption", "es"), "the service does not hear any more");
	}

private Q_SLOTS:
	void initTestCase() { QVERIFY2(certificate.isValid(), "mkcert made no certificate"); }
	void init() { serve(); }
	void cleanup()
	{
		server.reset();
		engines.reset();
	}

	void theRightKeyIsWelcomed()
	{
		serve(4);
		TestClient c = client();
		QVERIFY(c.start(server->url(), {}));
		const QJsonObject answer = c.all("auth_ok").first();
		QCOMPARE(answer.value("maxTargetLanguages").toInt(-1), 4);
		QVERIFY(answer.value("limits").isObject());
		QVERIFY(answer.value("voiceProfile").isObject());
	}

	void anotherKeyIsRefusedAndTheConnectionClosed()
	{
		TestClient c = client();
		QVERIFY(c.connectTo(server->url()));
		c.sendAuth({}, "translated", "en", "tak_live_other");
		QVERIFY(c.waitForEnd());
		QCOMPARE(c.order(), QStringList{"auth_error"});
		QCOMPARE(c.all("auth_error").first().value("error").toString(), "Invalid API key");
	}

	void anotherPathIsRefused()
	{
		TestClient c = client();
		c.socket.open(QUrl(server->url().replace("/ws/audio-pipeline", "/ws/other")));
		QVERIFY(c.waitForEnd());
		QCOMPARE(c.socket.closeCode(), QWebSocketProtocol::CloseCodePolicyViolated);
		QVERIFY(c.received.isEmpty());
	}

	void anUtteranceIsAnsweredInOrder()
	{
		TestClient c = client();
		QVERIFY(c.start(server->url(), {wants("es", true, true)}));
		c.sendAudio(kUtterance);
		QVERIFY(c.waitFor("tts_end", "es"));
		QStringList order = c.order();
		order.removeAll("binary:es");
		QCOMPARE(order, (QStringList{"auth_ok", "transcript_interim", "transcript_final", "caption:es",
					     "tts_start:es", "tts_end:es"}));
		QCOMPARE(c.all("transcript_interim").first().value("text").toString(), "I am");
		QCOMPARE(c.all("transcript_final").first().value("text").toString(), "I am here.");
		const QJsonObject caption = c.all("caption").first();
		QCOMPARE(caption.value("text").toString(), "es: I am here.");
		QCOMPARE(caption.value("duration").toDouble(), 3.0);
		QCOMPARE(caption.value("clipId").toInt(), 1);
		const QJsonObject start = c.all("tts_start").first();
		QCOMPARE(start.value("clipId").toInt(), 1);
		QCOMPARE(start.value("sampleRate").toInt(), 22050);
		QCOMPARE(c.audio("es"), QByteArray(2 * 22050 * 3, '\5'));
		QCOMPARE(c.order().at(5), "binary:es");
		QCOMPARE(c.order().last(), "tts_end:es");
	}

	void clipIdsRiseAndAreNotRepeatedAfterAReconnect()
	{
		for (int id = 1; id <= 3; ++id) {
			TestClient c = client();
			QVERIFY(c.start(server->url(), {wants("es", false, true)}));
			c.sendAudio(kUtterance);
			QVERIFY(c.waitFor("caption"));
			QCOMPARE(c.all("caption").first().value("clipId").toInt(), id);
		}
	}

	void captionsAndDubsGoToTheLanguagesThatAskedForThem()
	{
		TestClient c = client();
		QVERIFY(c.start(server->url(),
				{wants("en", true, true), wants("es", false, true), wants("fr", true, false)}));
		c.sendAudio(kUtterance);
		QVERIFY(c.waitFor("tts_end", "fr"));
		QVERIFY(c.waitFor("caption", "es"));
		QCOMPARE(c.all("caption").size(), 2);
		QVERIFY2(c.all("tts_start", "en").isEmpty(), "dubbed into the spoken language");
		QVERIFY2(c.all("tts_start", "es").isEmpty(), "dubbed without being asked");
	}

	void captionsInTheSpokenLanguagePassThrough()
	{
		TestClient c = client();
		QVERIFY(c.start(server->url(), {wants("en", false, true)}));
		c.sendAudio(kUtterance);
		QVERIFY(c.waitFor("caption", "en"));
		QCOMPARE(c.all("caption").first().value("text").toString(), "I am here.");
	}

	void originalModeCaptionsCarryTheSpokenTextAndDubsGoOn()
	{
		TestClient c = client();
		QVERIFY(c.start(server->url(), {wants("de", false, true), wants("es", true, true)}, "original"));
		c.sendAudio(kUtterance);
		QVERIFY(c.waitFor("tts_end", "es"));
		QCOMPARE(c.all("caption").size(), 2);
		QCOMPARE(c.all("caption", "es").first().value("text").toString(), "I am here.");
		QCOMPARE(c.all("caption", "de").first().value("text").toString(), "I am here.");
		QVERIFY2(c.all("transcript_interim").size() == 1, "a notice about a translation that nobody asked for");
	}

	void untranslatableLanguagesAreAnnouncedOnceAndCaptionedInEnglish()
	{
		TestClient c = client();
		const QJsonArray targets{wants("de", true, true), wants("ja", false, true)};
		QVERIFY(c.start(server->url(), targets));
		QVERIFY(c.waitFor("transcript_interim"));
		c.send({{"type", "config_update"}, {"captionMode", "translated"}, {"targetLanguages", targets}});
		c.sendAudio(orders({kStart, kEnd}));
		QVERIFY(c.waitFor("caption", "de"));
		QVERIFY(c.waitFor("caption", "ja"));
		QCOMPARE(c.all("caption", "de").first().value("text").toString(), "[English] I am here.");
		QCOMPARE(c.all("transcript_interim").size(), 1);
		QCOMPARE(c.all("transcript_interim").first().value("text").toString(),
			 "No translation into German, Japanese here: captions show the spoken English, and there is no "
			 "dubbing.");
		c.send({{"type", "stop"}});
		QVERIFY(c.waitForEnd());
		QVERIFY(c.all("tts_start").isEmpty());
	}

	void aFailedTranslationIsCaptionedInEnglishAndNotDubbed()
	{
		TestClient c = client();
		QVERIFY(c.start(server->url(), {wants("it", true, true)}));
		c.sendAudio(kUtterance);
		QVERIFY(c.waitFor("caption", "it"));
		QCOMPARE(c.all("caption").first().value("text").toString(), "[English] I am here.");
		c.send({{"type", "stop"}});
		QVERIFY(c.waitForEnd());
		QVERIFY(c.all("tts_start").isEmpty());
		QVERIFY(happened("translation_failed"));
	}

	void anotherSpokenLanguageIsToldToBeUnknownAndNothingIsHeard()
	{
		TestClient c = client();
		QVERIFY(c.start(server->url(), {wants("es", true, true)}, "translated", "fr"));
		QVERIFY(c.waitFor("transcript_interim"));
		QCOMPARE(c.all("transcript_interim").first().value("text").toString(),
			 "Only English can be recognised here: while the spoken language is set to French, there will "
			 "be no "
			 "captions and no dubbing.");
		c.sendAudio(kUtterance);
		c.send({{"type", "stop"}});
		QVERIFY(c.waitForEnd());
		QCOMPARE(c.order(), (QStringList{"auth_ok", "transcript_interim", "session_ended"}));
	}

	void aMissingRecogniserIsTold()
	{
		serve(0, 10000, false);
		TestClient c = client();
		QVERIFY(c.start(server->url(), {wants("es", true, true)}));
		QVERIFY(c.waitFor("transcript_interim"));
		QVERIFY(c.all("transcript_interim").first().value("text").toString().contains("not available"));
	}

	void targetsBeyondTheLimitAreNotServed()
	{
		serve(1);
		TestClient c = client();
		QVERIFY(c.start(server->url(), {wants("es", false, true), wants("fr", false, true)}));
		QVERIFY(c.waitFor("transcript_interim"));
		QCOMPARE(c.all("transcript_interim").first().value("text").toString(),
			 "Only the first 1 target languages are served.");
		c.sendAudio(kUtterance + kUtterance);
		QVERIFY(c.waitFor("caption", "es", 2));
		QVERIFY(c.all("caption", "fr").isEmpty());
	}

	void aConfigUpdateTakesEffect()
	{
		TestClient c = client();
		QVERIFY(c.start(server->url(), {wants("es", false, true)}));
		c.sendAudio(kUtterance);
		QVERIFY(c.waitFor("caption", "es"));
		const int prepared = FakeTranslator::prepared;
		c.send({{"type", "config_update"},
			{"captionMode", "translated"},
			{"targetLanguages", QJsonArray{wants("fr", true, true)}}});
		c.sendAudio(kUtterance);
		QVERIFY(c.waitFor("tts_end", "fr"));
		QCOMPARE(c.all("caption", "es").size(), 1);
		QCOMPARE(c.all("caption", "fr").size(), 1);
		QCOMPARE(FakeTranslator::prepared.load(), prepared + 1);
		c.send({{"type", "config_update"},
			{"captionMode", "original"},
			{"targetLanguages", QJsonArray{wants("fr", false, true)}}});
		c.sendAudio(kUtterance);
		QVERIFY(c.waitFor("caption", "fr", 2));
		QCOMPARE(c.all("caption", "fr").last().value("text").toString(), "I am here.");
	}

	void aDubThatIsSwitchedOffEndsWithItsCurrentClip()
	{
		constexpr qsizetype clips = 5;
		TestClient c = client();
		QVERIFY(c.start(server->url(), {wants("es", true, true)}));
		for (qsizetype i = 0; i < clips; ++i) {
			c.sendAudio(kUtterance);
		}
		QVERIFY(c.waitFor("caption", "es", clips));
		QVERIFY(c.waitFor("tts_start", "es", 2));
		c.send({{"type", "config_update"},
			{"captionMode", "translated"},
			{"targetLanguages", QJsonArray{wants("es", false, true)}}});
		QVERIFY(QTest::qWaitFor([&] { return count("config_update") == 1; }));
		const qsizetype begun = count("tts_start");
		QVERIFY2(begun < clips, "nothing waited to be sent any more");
		QCOMPARE(count("tts_dropped"), clips - begun);
		QVERIFY2(c.waitFor("tts_end", "es", static_cast<int>(begun)), "a clip was not finished");
		c.send({{"type", "stop"}});
		QVERIFY(c.waitForEnd());
		QCOMPARE(c.all("tts_start").size(), begun);
	}

	void stopIsAnsweredWithTheUsageAndAClose()
	{
		TestClient c = client();
		QVERIFY(c.start(server->url(), {wants("en", false, true), wants("es", true, true)}));
		c.sendAudio(kUtterance);
		QVERIFY(c.waitFor("tts_end", "es"));
		c.send({{"type", "stop"}});
		QVERIFY(c.waitForEnd());
		QCOMPARE(c.socket.closeCode(), QWebSocketProtocol::CloseCodeNormal);
		QCOMPARE(c.order().last(), "session_ended");
		const QJsonObject usage = c.all("session_ended").first().value("usage").toObject();
		// Two captions of 3 s of speech, one clip of 3 s.
		QCOMPARE(usage.value("captionMinutes").toDouble(), 0.1);
		QCOMPARE(usage.value("dubbedMinutes").toDouble(), 0.05);
	}

	void stopBeforeAuthenticationEndsWithNothingUsed()
	{
		TestClient c = client();
		QVERIFY(c.connectTo(server->url()));
		c.send({{"type", "stop"}});
		QVERIFY(c.waitForEnd());
		QCOMPARE(c.order(), QStringList{"session_ended"});
		QCOMPARE(c.all("session_ended").first().value("usage").toObject().value("captionMinutes").toDouble(-1),
			 0.0);
	}

	void anUtteranceWithoutWordsIsNotAnswered()
	{
		TestClient c = client();
		QVERIFY(c.start(server->url(), {wants("es", true, true)}));
		c.sendAudio(orders({kStart, kMumble, kStart, kEnd}));
		QVERIFY(c.waitFor("caption", "es"));
		QCOMPARE(c.all("transcript_final").size(), 1);
		QCOMPARE(c.all("caption").first().value("clipId").toInt(), 1);
	}

	void whoDoesNotAuthenticateInTimeIsClosed()
	{
		serve(0, 200);
		TestClient c = client();
		QVERIFY(c.connectTo(server->url()));
		QVERIFY(c.waitForEnd());
		QCOMPARE(c.socket.closeCode(), QWebSocketProtocol::CloseCodePolicyViolated);
		QVERIFY(c.received.isEmpty());
	}

	void audioBeforeAuthenticationIsNotHeard()
	{
		TestClient c = client();
		QVERIFY(c.connectTo(server->url()));
		c.sendAudio(kUtterance);
		c.sendAuth({wants("es", false, true)});
		QVERIFY(c.waitFor("auth_ok"));
		c.send({{"type", "stop"}});
		QVERIFY(c.waitForEnd());
		QCOMPARE(c.order(), (QStringList{"auth_ok", "session_ended"}));
	}

	void nonsenseIsIgnored_data()
	{
		QTest::addColumn<QString>("text");
		QTest::newRow("empty") << "";
		QTest::newRow("no JSON") << "{\"type\":";
		QTest::newRow("array") << "[1,2]";
		QTest::newRow("number") << "5";
		QTest::newRow("no type") << "{}";
		QTest::newRow("type of another kind") << R"({"type":5})";
		QTest::newRow("unknown type") << R"({"type":"dance"})";
		QTest::newRow("other letter case") << R"({"type":"STOP"})";
		QTest::newRow("second auth") << R"({"type":"auth","apiKey":"wrong"})";
		QTest::newRow("config without members") << R"({"type":"config_update"})";
		QTest::newRow("config of other kinds")
			<< R"({"type":"config_update","targetLanguages":"es","captionMode":[]})";
		QTest::newRow("deep nesting") << QString(2000, '[');
		QTest::newRow("not Unicode text") << QString(QChar(0xd800)) + "{}";
	}

	void nonsenseIsIgnored()
	{
		QFETCH(QString, text);
		TestClient c = client();
		QVERIFY(c.start(server->url(), {}));
		c.socket.sendTextMessage(text);
		c.send({{"type", "config_update"}, {"targetLanguages", QJsonArray{wants("es", false, true)}}});
		c.sendAudio(kUtterance);
		QVERIFY(c.waitFor("caption", "es"));
		QCOMPARE(c.all("auth_error").size(), 0);
	}

	void oddNumbersOfAudioBytesAreHeard()
	{
		TestClient c = client();
		QVERIFY(c.start(server->url(), {wants("es", false, true)}));
		for (const char byte : kUtterance) {
			c.socket.sendBinaryMessage(QByteArray(1, byte));
			c.socket.sendBinaryMessage(QByteArray());
		}
		QVERIFY(c.waitFor("caption", "es"));
	}

	void aMessageThatIsTooLongEndsOnlyItsOwnConnection_data()
	{
		QTest::addColumn<bool>("text");
		QTest::newRow("text") << true;
		QTest::newRow("binary") << false;
	}

	void aMessageThatIsTooLongEndsOnlyItsOwnConnection()
	{
		QFETCH(bool, text);
		TestClient c = client();
		QVERIFY(c.start(server->url(), {}));
		const auto tooLong = static_cast<qsizetype>(Connection::kLongestMessage) + 1;
		if (text) {
			c.socket.sendTextMessage(QString(tooLong, 'x'));
		} else {
			c.socket.sendBinaryMessage(QByteArray(tooLong, 'x'));
		}
		QVERIFY(c.waitForEnd());
		verifyServing();
	}

	void aFloodOfAudioIsDroppedAndTheServiceGoesOn()
	{
		TestClient c = client();
		QVERIFY(c.start(server->url(), {}));
		const QByteArray frame(200000, '\0');
		for (int i = 0; i < 100; ++i) {
			c.socket.sendBinaryMessage(frame);
		}
		QVERIFY(QTest::qWaitFor([&] { return c.socket.bytesToWrite() == 0 || c.ended; },
					TestClient::kTimeoutMs));
		verifyServing();
	}

	void aClientThatNeverReadsIsDropped()
	{
		// Four times what may wait, because the system keeps some as well; a clip of 1 MB at a time.
		QString error;
		QJsonArray steps{QJsonObject{{"expect", "auth"}}};
		const QJsonObject clip{{"language", "es"}, {"pcm", "sine 440 22s"}, {"frame_bytes", 100000}};
		for (qint64 bytes = 0; bytes < 4 * Connection::kMostUnread; bytes += 24000 * 2 * 22) {
			steps.append(QJsonObject{{"send_tts", clip}});
			steps.append(QJsonObject{{"after_ms", 1}});
		}
		serve(0, 10000, true, script::Script::parse(QJsonDocument(steps).toJson(), {}, &error));
		QVERIFY2(error.isEmpty(), qPrintable(error));
		QSslSocket idle;
		idle.setSslConfiguration(certificate.clientTls());
		idle.setReadBufferSize(4096);
		idle.connectToHostEncrypted("localhost", static_cast<quint16>(QUrl(server->url()).port()));
		QVERIFY(QTest::qWaitFor([&] { return idle.isEncrypted(); }, TestClient::kTimeoutMs));
		idle.write("GET /ws/audio-pipeline HTTP/1.1\r\nHost: localhost\r\nUpgrade: websocket\r\n"
			   "Connection: Upgrade\r\nSec-WebSocket-Version: 13\r\n"
			   "Sec-WebSocket-Key: AAAAAAAAAAAAAAAAAAAAAA==\r\n\r\n");
		QVERIFY(QTest::qWaitFor([&] { return idle.bytesAvailable() > 0; }, TestClient::kTimeoutMs));
		// A masked text frame (the mask is zero).
		idle.write(QByteArray::fromHex("818f00000000") + R"({"type":"auth"})");
		QVERIFY2(QTest::qWaitFor([this] { return happened("disconnected"); }, 60000),
			 "the connection was kept, and all that was sent with it");
		QVERIFY2(count("script_step") < steps.size(), "it was kept until all had been sent");
	}

	void aClientThatReadsMayBeSentMuch()
	{
		QString error;
		QJsonArray steps{QJsonObject{{"expect", "auth"}}};
		const QJsonObject clip{{"language", "es"}, {"pcm", "sine 440 22s"}, {"frame_bytes", 100000}};
		constexpr int clips = 24;
		for (int i = 0; i < clips; ++i) {
			steps.append(QJsonObject{{"send_tts", clip}});
			steps.append(QJsonObject{{"expect", "more"}});
		}
		serve(0, 10000, true, script::Script::parse(QJsonDocument(steps).toJson(), {}, &error));
		QVERIFY2(error.isEmpty(), qPrintable(error));
		TestClient c = client();
		QVERIFY(c.connectTo(server->url()));
		c.sendAuth({});
		for (int i = 1; i <= clips; ++i) {
			QVERIFY2(c.waitFor("tts_end", "es", i), "dropped although it reads");
			c.send({{"type", "more"}});
		}
		QVERIFY(c.audio("es").size() > Connection::kMostUnread);
	}

	void anAbruptEndInMidUtteranceHarmsNobody()
	{
		for (int i = 0; i < 5; ++i) {
			TestClient c = client();
			QVERIFY(c.start(server->url(), {wants("es", true, true), wants("fr", true, true)}));
			c.sendAudio(kUtterance + kUtterance + orders({kStart, kPartial}));
			QVERIFY(c.waitFor("transcript_final"));
			c.socket.abort();
		}
		verifyServing();
	}

	void bytesThatAreNoTlsHarmNobody()
	{
		serve(0, 1000);
		QTcpSocket plain;
		plain.connectToHost("127.0.0.1", static_cast<quint16>(QUrl(server->url()).port()));
		QVERIFY(QTest::qWaitFor([&] { return plain.state() == QAbstractSocket::ConnectedState; }));
		plain.write("GET / HTTP/1.1\r\n\r\n");
		QVERIFY(QTest::qWaitFor([&] { return plain.state() == QAbstractSocket::UnconnectedState; }, 15000));
		verifyServing();
	}

	void bytesThatAreNoWebSocketHarmNobody()
	{
		serve(0, 1000);
		QSslSocket tls;
		tls.setSslConfiguration(certificate.clientTls());
		tls.connectToHostEncrypted("localhost", static_cast<quint16>(QUrl(server->url()).port()));
		QVERIFY(QTest::qWaitFor([&] { return tls.isEncrypted(); }, 15000));
		tls.write(QByteArray(100000, 'x') + "\r\n\r\n");
		QVERIFY(QTest::qWaitFor([&] { return tls.state() == QAbstractSocket::UnconnectedState; }, 15000));
		verifyServing();
	}

	void tenClientsAtOnceAreAllAnswered()
	{
		std::vector<std::unique_ptr<TestClient>> clients;
		for (int i = 0; i < 10; ++i) {
			clients.push_back(std::make_unique<TestClient>(certificate.clientTls()));
			clients.back()->socket.open(QUrl(server->url()));
		}
		for (const auto &c : clients) {
			QVERIFY(QTest::qWaitFor([&] { return c->socket.state() == QAbstractSocket::ConnectedState; },
						TestClient::kTimeoutMs));
			c->sendAuth({wants("es", true, true)});
		}
		for (const auto &c : clients) {
			QVERIFY(c->waitFor("auth_ok"));
			c->sendAudio(kUtterance);
		}
		for (const auto &c : clients) {
			QVERIFY(c->waitFor("tts_end", "es"));
			QCOMPARE(c->all("caption").size(), 1);
		}
	}

	void tooManyConnectionsAreRefused()
	{
		std::vector<std::unique_ptr<TestClient>> clients;
		for (int i = 0; i < Server::kMostConnections; ++i) {
			clients.push_back(std::make_unique<TestClient>(certificate.clientTls()));
			QVERIFY(clients.back()->start(server->url(), {}));
		}
		TestClient c = client();
		c.socket.open(QUrl(server->url()));
		QVERIFY(c.waitForEnd());
		QCOMPARE(c.socket.closeCode(), QWebSocketProtocol::CloseCodePolicyViolated);
		QVERIFY(c.received.isEmpty());
		clients.clear();
		QVERIFY(QTest::qWaitFor([this] { return happened("disconnected"); }));
		verifyServing();
	}

	void whatClientsSendIsRecorded()
	{
		TestClient c = client();
		QVERIFY(c.start(server->url(), {}));
		const QString odd = R"({ "type" : "x" })";
		c.socket.sendTextMessage(odd);
		c.socket.sendBinaryMessage(QByteArray(320, 'a'));
		c.socket.sendBinaryMessage(QByteArray(40, 'b'));
		c.socket.close();
		QVERIFY(c.waitForEnd());
		QVERIFY(QTest::qWaitFor([this] { return lines("record").last().value("kind") == "close"; }));
		const QList<QJsonObject> record = lines("record");
		QCOMPARE(record.size(), 6);
		QCOMPARE(record.at(0).value("kind").toString(), "open");
		QCOMPARE(record.at(0).value("path").toString(), "/ws/audio-pipeline");
		QVERIFY(record.at(1).value("text").toString().contains("tak_live_local"));
		QCOMPARE(record.at(2).value("text").toString(), odd);
		QCOMPARE(record.at(3).value("bytes").toInt(), 320);
		QCOMPARE(record.at(3).value("offset").toInt(), 0);
		QCOMPARE(record.at(4).value("bytes").toInt(), 40);
		QCOMPARE(record.at(4).value("offset").toInt(), 320);
		QVERIFY(record.at(4).value("mono_ms").toInteger() > 0);
		QFile pcm(dir.filePath("record.1.pcm"));
		QVERIFY(pcm.open(QIODevice::ReadOnly));
		QCOMPARE(pcm.readAll(), QByteArray(320, 'a') + QByteArray(40, 'b'));
	}

	void eventsTellWhatHappenedWhen()
	{
		TestClient c = client();
		QVERIFY(c.start(server->url(), {wants("es", true, true)}));
		c.sendAudio(kUtterance);
		QVERIFY(c.waitFor("tts_end", "es"));
		QStringList names;
		qint64 last = 0;
		for (const QJsonObject &line : lines("events")) {
			names.append(line.value("event").toString());
			QCOMPARE(line.value("connection").toInt(), 1);
			QVERIFY2(line.value("mono_ms").toInteger() >= last,
				 "events are not in the order of their times");
			last = line.value("mono_ms").toInteger();
			QVERIFY(QDateTime::fromString(line.value("wall").toString(), Qt::ISODateWithMs).isValid());
		}
		QCOMPARE(names, (QStringList{"connected", "auth_ok", "utterance_start", "utterance_end", "final",
					     "caption", "tts_start", "tts_end"}));
	}

	void noKeyIsWrittenToTheEvents()
	{
		TestClient c = client();
		QVERIFY(c.start(server->url(), {}));
		QFile file(dir.filePath("events"));
		QVERIFY(file.open(QIODevice::ReadOnly));
		QVERIFY(!file.readAll().contains("tak_live_local"));
	}
};

QTEST_GUILESS_MAIN(SessionTest)
#include "session-test.moc"
