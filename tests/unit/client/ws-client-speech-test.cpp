// SPDX-License-Identifier: GPL-2.0-or-later
#include "client/ws-client.h"

#include "log-capture.h"
#include "loopback-service.h"
#include "ws-client-session.h"

#include <QSignalSpy>
#include <QTest>
#include <QWebSocket>

#include <tuple>

namespace {

using Piece = std::tuple<QString, int, QByteArray, int>;

QList<Piece> pieces(const QSignalSpy &spy)
{
	QList<Piece> all;
	for (const QList<QVariant> &arguments : spy) {
		all.append({arguments[0].toString(), arguments[1].toInt(), arguments[2].toByteArray(),
			    arguments[3].toInt()});
	}
	return all;
}

/** All that the pieces of a clip bring, one after the other. */
QByteArray joined(const QSignalSpy &spy, const QString &language)
{
	QByteArray all;
	for (const auto &[of, clipId, pcm, rate] : pieces(spy)) {
		all.append(of == language ? pcm : QByteArray());
	}
	return all;
}

} // namespace

/** Clips of synthesised speech, from the wire to the signal. */
class WSClientTest : public QObject {
	Q_OBJECT

private Q_SLOTS:
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
		QCOMPARE(pieces(spy),
			 (QList<Piece>{{"es", 7, "abcd", 22050}, {"es", 7, "ef", 22050}, {"es", 7, "", 22050}}));
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
		QCOMPARE(pieces(spy), (QList<Piece>{{"en", 1, QByteArray(400, '.'), 24000}, {"en", 1, "zy", 24000}}));
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

	/** Half a sample held back would turn the next connection's clip of the same id into noise. */
	void openClipsEndWithTheirConnection_data()
	{
		QTest::addColumn<QString>("end");
		QTest::newRow("lost") << "lost";
		QTest::newRow("stopped") << "stopped";
		QTest::newRow("another session") << "another session";
	}
	void openClipsEndWithTheirConnection()
	{
		QFETCH(QString, end);
		LoopbackService service;
		WSClient client;
		QVERIFY(authenticate(client, service));
		const QString open = R"({"type":"tts_start","language":"en","clipId":3,"sampleRate":16000})";
		client.onTextMessageReceived(open);
		client.onBinaryMessageReceived("\x02"
					       "enz");
		if (end == "lost") {
			service.peer()->abort();
			QTRY_COMPARE(client.state(), WsState::Reconnecting);
		} else if (end == "stopped") {
			client.disconnectFromServer();
		} else {
			start(client, service.url());
		}
		QVERIFY(client.pendingTts.empty());
		QVERIFY(client.currentTtsLanguage.isEmpty());
		QVERIFY(authenticate(client, service));
		QSignalSpy spy(&client, &WSClient::ttsAudioReady);
		client.onTextMessageReceived(R"({"type":"tts_start","language":"en","clipId":3,"sampleRate":8000})");
		client.onBinaryMessageReceived("\x02"
					       "enab");
		QCOMPARE(pieces(spy), (QList<Piece>{{"en", 3, "ab", 8000}}));
	}

	// What a service can make out of one message

	void aFrameOfCountlessSegmentsGivesFewPieces()
	{
		WSClient client;
		QSignalSpy spy(&client, &WSClient::ttsAudioReady);
		client.onTextMessageReceived(R"({"type":"tts_start","language":"es","clipId":1})");
		client.onTextMessageReceived(R"({"type":"tts_start","language":"fr","clipId":2})");
		QByteArray frame;
		QByteArray spanish;
		QByteArray french;
		// Of odd lengths, so that a sample is made of two segments.
		for (char i = 0; frame.size() < 1024 * 1024; ++i) {
			frame += "\2es" + QByteArray(3, i) + "\2fr" + QByteArray(1, i);
			spanish += QByteArray(3, i);
			french += QByteArray(1, i);
		}
		frame += "\2es.";
		spanish += '.';
		client.onBinaryMessageReceived(frame);
		QVERIFY2(spy.size() <= 258, qPrintable(QString::number(spy.size())));
		QCOMPARE(joined(spy, "es"), spanish.first(spanish.size() / 2 * 2));
		QCOMPARE(joined(spy, "fr"), french.first(french.size() / 2 * 2));
		QVERIFY(client.pendingTts.at("es").pcm.size() <= 1);
		QVERIFY(client.pendingTts.at("fr").pcm.size() <= 1);
	}

	/** Each of so few segments is told for itself, in the order of the frame. */
	void aFrameOfManySegmentsGivesAPieceForEach()
	{
		WSClient client;
		QSignalSpy spy(&client, &WSClient::ttsAudioReady);
		client.onTextMessageReceived(R"({"type":"tts_start","language":"es","clipId":1})");
		client.onTextMessageReceived(R"({"type":"tts_start","language":"fr","clipId":2})");
		QByteArray frame;
		QList<Piece> expected;
		for (int i = 0; i < 128; ++i) {
			const QByteArray pcm(2, static_cast<char>(i));
			frame += "\2es" + pcm + "\2fr" + pcm;
			expected += {{"es", 1, pcm, 24000}, {"fr", 2, pcm, 24000}};
		}
		client.onBinaryMessageReceived(frame);
		QCOMPARE(pieces(spy), expected);
	}

	void clipsThatAreOpenedWithoutEndAreFew()
	{
		WSClient client;
		const auto open = [&](const QString &language) {
			client.onTextMessageReceived(
				QStringLiteral(R"({"type":"tts_start","language":"%1","clipId":1})").arg(language));
		};
		open(QString(65, 'x'));
		QVERIFY(client.pendingTts.empty());
		open(QString(64, 'x'));
		QCOMPARE(client.pendingTts.size(), size_t{1});
		for (int i = 1; i <= 1000; ++i) {
			open(QString::number(i));
		}
		QCOMPARE(client.pendingTts.size(), size_t{64});
		QVERIFY(client.pendingTts.contains("63"));
		QVERIFY(!client.pendingTts.contains("64"));

		// A new clip in place of one that is open adds none.
		client.onTextMessageReceived(R"({"type":"tts_start","language":"63","clipId":2})");
		QCOMPARE(client.pendingTts.at("63").clipId, 2);
		client.onTextMessageReceived(R"({"type":"tts_end","language":"1"})");
		open("64");
		QVERIFY(client.pendingTts.contains("64"));
	}
};

QTEST_GUILESS_MAIN(WSClientTest)
#include "ws-client-speech-test.moc"
