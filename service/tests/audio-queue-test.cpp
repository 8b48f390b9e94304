// SPDX-License-Identifier: GPL-3.0-or-later
#include "engines/audio-queue.h"

#include <QTest>

#include <thread>

class AudioQueueTest : public QObject {
	Q_OBJECT

private Q_SLOTS:
	void samplesComeOutInOrder()
	{
		AudioQueue queue;
		QVERIFY(queue.push(QByteArray::fromHex("0100feff")));
		QVERIFY(queue.push(QByteArray::fromHex("0300")));
		QCOMPARE(queue.take(), (std::vector<int16_t>{1, -2, 3}));
	}

	void anOddByteWaitsForItsOtherHalf()
	{
		AudioQueue queue;
		QVERIFY(queue.push(QByteArray::fromHex("010002")));
		QCOMPARE(queue.take(), (std::vector<int16_t>{1}));
		QVERIFY(queue.push(QByteArray::fromHex("01")));
		QCOMPARE(queue.take(), (std::vector<int16_t>{0x0102}));
	}

	void whatDoesNotFitIsDroppedWhole()
	{
		AudioQueue queue;
		QVERIFY(queue.push(QByteArray(AudioQueue::kCapacity - 2, '\1')));
		QVERIFY(!queue.push(QByteArray(4, '\2')));
		QVERIFY(queue.push(QByteArray(2, '\3')));
		size_t taken = 0;
		int16_t last = 0;
		while (taken < static_cast<size_t>(AudioQueue::kCapacity / 2)) {
			const std::vector<int16_t> samples = queue.take();
			taken += samples.size();
			last = samples.back();
		}
		QCOMPARE(taken, static_cast<size_t>(AudioQueue::kCapacity / 2));
		QCOMPARE(last, int16_t{0x0303});
	}

	void aSecondIsTakenAtMostAtATime()
	{
		AudioQueue queue;
		QVERIFY(queue.push(QByteArray(40001, '\1')));
		QCOMPARE(queue.take().size(), size_t{16000});
		QCOMPARE(queue.take().size(), size_t{4000});
	}

	void endingWakesTheReader()
	{
		AudioQueue queue;
		bool empty = false;
		std::thread reader([&] { empty = queue.take().empty(); });
		queue.end();
		reader.join();
		QVERIFY(empty);
	}

	void nothingComesOutOfAnEndedQueue()
	{
		AudioQueue queue;
		QVERIFY(queue.push(QByteArray(4, '\1')));
		QVERIFY(!queue.isEnded());
		queue.end();
		QVERIFY(queue.isEnded());
		QVERIFY(queue.take().empty());
	}
};

QTEST_GUILESS_MAIN(AudioQueueTest)
#include "audio-queue-test.moc"
