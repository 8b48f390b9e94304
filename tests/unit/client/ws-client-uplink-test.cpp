// SPDX-License-Identifier: GPL-2.0-or-later
#include "client/ws-client.h"

#include "heap-guard.h"
#include "log-capture.h"
#include "loopback-service.h"
#include "ws-client-session.h"

#include <QTest>
#include <QThread>
#include <QTimer>

#include <memory>
#include <vector>

/** From enqueueAudio() to the frames that reach the service. */
class WSClientTest : public QObject {
	Q_OBJECT

private Q_SLOTS:
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
		const auto audio = countingSamples(500);
		client.enqueueAudio(audio.data(), audio.size());
		client.setState(static_cast<WsState>(state));
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

	/** Capture runs as long as OBS does, and most of that time there is no session. */
	void withoutAConnectionNothingIsQueuedOrLogged_data()
	{
		QTest::addColumn<int>("state");
		QTest::newRow("disconnected") << kDisconnected;
		QTest::newRow("connecting") << kConnecting;
		QTest::newRow("reconnecting") << kReconnecting;
	}
	void withoutAConnectionNothingIsQueuedOrLogged()
	{
		QFETCH(int, state);
		const LogCapture log;
		WSClient client;
		client.setState(static_cast<WsState>(state));
		const std::vector<int16_t> filler(AudioRing::kCapacity);
		client.enqueueAudio(filler.data(), filler.size());
		client.enqueueAudio(filler.data(), filler.size());
		QCOMPARE(client.audioRing.held(), size_t{0});
		QVERIFY(log.ownLines().isEmpty());
	}

	void enqueueingNothingWritesAndLogsNothing()
	{
		const LogCapture log;
		WSClient client;
		client.setState(WsState::Connected);
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
		client.setState(WsState::Connected);
		const std::vector<int16_t> filler(AudioRing::kCapacity / 2 - 3);
		client.enqueueAudio(filler.data(), filler.size());
		QVERIFY(log.ownLines().isEmpty());

		const auto audio = countingSamples(4);
		client.enqueueAudio(audio.data(), 4);
		const QStringList once{"[talvora-obs] WSClient: ring buffer full, dropped 2 of 8 bytes"};
		QCOMPARE(log.lines(LOG_DEBUG), once);
		client.enqueueAudio(audio.data(), 4);
		QCOMPARE(log.lines(LOG_DEBUG), once);
		QCOMPARE(log.ownLines().size(), 1);
		QCOMPARE(client.audioRing.held(), size_t{262144});

		// The next overflow is another one.
		client.audioRing.discard();
		client.enqueueAudio(filler.data(), filler.size());
		client.enqueueAudio(audio.data(), 3);
		QCOMPARE(log.lines(LOG_DEBUG), once);
		client.enqueueAudio(audio.data(), 4);
		QCOMPARE(log.lines(LOG_DEBUG).last(), "[talvora-obs] WSClient: ring buffer full, dropped 8 of 8 bytes");
		QCOMPARE(log.ownLines().size(), 2);
	}

	void enqueueingAllocatesNothing()
	{
		WSClient client;
		client.setState(WsState::Authenticated);
		const auto audio = countingSamples(342);
		HeapGuard guard;
		for (int chunk = 0; chunk < 300; ++chunk) {
			client.enqueueAudio(audio.data(), audio.size());
		}
		guard.stop();
		QVERIFY2(guard.calls() == 0, guard.report());
		QVERIFY(client.audioRing.held() > 0);
	}

	/** One thread speaks while the other connects, loses the connection and sends. */
	void audioArrivesWholeFromAnotherThread()
	{
		LoopbackService service;
		WSClient client;
		QVERIFY(authenticate(client, service));
		constexpr size_t kChunks = 300;
		constexpr size_t kChunkSamples = 341;
		std::unique_ptr<QThread> audioThread(QThread::create([&client] {
			for (size_t chunk = 0; chunk < kChunks; ++chunk) {
				const auto audio =
					countingSamples(kChunkSamples, static_cast<int16_t>(chunk * kChunkSamples));
				client.enqueueAudio(audio.data(), audio.size());
				QThread::usleep(500);
			}
		}));
		audioThread->start();
		QTRY_COMPARE(size_t(service.frames.join().size()), kChunks * kChunkSamples * 2);
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
};

QTEST_GUILESS_MAIN(WSClientTest)
#include "ws-client-uplink-test.moc"
