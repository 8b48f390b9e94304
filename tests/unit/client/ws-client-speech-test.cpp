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
};

QTEST_GUILESS_MAIN(WSClientTest)
#include "ws-client-speech-test.moc"
