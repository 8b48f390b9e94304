// SPDX-License-Identifier: GPL-2.0-or-later
#include "client/audio-ring.h"

#include <QTest>

#include <algorithm>
#include <array>
#include <chrono>
#include <numeric>
#include <thread>
#include <vector>

namespace {

/** `count` bytes counting up from `first`. */
std::vector<unsigned char> countingBytes(size_t count, unsigned char first = 0)
{
	std::vector<unsigned char> bytes(count);
	std::iota(bytes.begin(), bytes.end(), first);
	return bytes;
}

std::vector<unsigned char> readAll(AudioRing &ring)
{
	std::vector<unsigned char> out(AudioRing::kCapacity);
	out.resize(ring.read(out.data(), out.size()));
	return out;
}

/** Moves both ends to `position` bytes. */
void advanceTo(AudioRing &ring, size_t position)
{
	const auto filler = countingBytes(position);
	QCOMPARE(ring.write(filler.data(), filler.size()), position);
	QCOMPARE(readAll(ring).size(), position);
}

} // namespace

class AudioRingTest : public QObject {
	Q_OBJECT

private Q_SLOTS:
	void holds256KiB()
	{
		QCOMPARE(AudioRing::kCapacity, uint64_t{262144});
		QCOMPARE(AudioRing::kMask, uint64_t{262143});
		AudioRing ring;
		const auto bytes = countingBytes(262144);
		QCOMPARE(ring.write(bytes.data(), bytes.size()), size_t{262144});
		QCOMPARE(ring.held(), size_t{262144});
		QVERIFY2(readAll(ring) == bytes, "a full ring is read back as it was written");
		QCOMPARE(ring.held(), size_t{0});
	}

	void startsEmptyAndZeroFilled()
	{
		AudioRing ring;
		QCOMPARE(ring.held(), size_t{0});
		QCOMPARE(readAll(ring).size(), size_t{0});
		const unsigned char *store = ring.store.get();
		QVERIFY(std::all_of(store, store + AudioRing::kCapacity, [](unsigned char byte) { return byte == 0; }));
	}

	void writingNothingChangesNothing()
	{
		AudioRing ring;
		// gcc 12 would warn of a null pointer that it knows of, although nothing is copied from it.
		const void *volatile nowhere = nullptr;
		QCOMPARE(ring.write(nowhere, 0), size_t{0});
		QCOMPARE(ring.held(), size_t{0});
	}

	void onlyWholeSamplesAreWritten_data()
	{
		QTest::addColumn<int>("offered");
		QTest::addColumn<int>("taken");
		QTest::newRow("one byte") << 1 << 0;
		QTest::newRow("two bytes") << 2 << 2;
		QTest::newRow("three bytes") << 3 << 2;
		QTest::newRow("1001 bytes") << 1001 << 1000;
	}
	void onlyWholeSamplesAreWritten()
	{
		QFETCH(int, offered);
		QFETCH(int, taken);
		AudioRing ring;
		const auto bytes = countingBytes(static_cast<size_t>(offered));
		QCOMPARE(ring.write(bytes.data(), bytes.size()), static_cast<size_t>(taken));
		QCOMPARE(ring.held(), static_cast<size_t>(taken));
	}

	void onlyWholeSamplesAreRead()
	{
		AudioRing ring;
		const auto bytes = countingBytes(10);
		ring.write(bytes.data(), bytes.size());
		std::array<unsigned char, 16> out{};
		QCOMPARE(ring.read(out.data(), 1), size_t{0});
		QCOMPARE(ring.read(out.data(), 5), size_t{4});
		QCOMPARE(int{out[3]}, 3);
		QCOMPARE(ring.read(out.data(), out.size()), size_t{6});
		QCOMPARE(int{out[0]}, 4);
		QCOMPARE(int{out[5]}, 9);
	}

	void newestIsCutWhenItDoesNotFit()
	{
		AudioRing ring;
		const auto older = countingBytes(AudioRing::kCapacity - 6, 7);
		ring.write(older.data(), older.size());
		const auto newer = countingBytes(8, 100);
		QCOMPARE(ring.write(newer.data(), newer.size()), size_t{6});
		QCOMPARE(ring.write(newer.data(), newer.size()), size_t{0});

		auto expected = older;
		expected.insert(expected.end(), newer.begin(), newer.begin() + 6);
		QVERIFY2(readAll(ring) == expected, "the older audio stays, the newest is cut");
	}

	void dataAcrossTheEndIsReadBackInOrder_data()
	{
		QTest::addColumn<int>("before");
		QTest::newRow("ends at the end") << 1000;
		QTest::newRow("one sample over") << 998;
		QTest::newRow("half and half") << 500;
		QTest::newRow("one sample before the end") << 2;
	}
	void dataAcrossTheEndIsReadBackInOrder()
	{
		QFETCH(int, before);
		AudioRing ring;
		advanceTo(ring, AudioRing::kCapacity - static_cast<size_t>(before));
		const auto bytes = countingBytes(1000, 42);
		QCOMPARE(ring.write(bytes.data(), bytes.size()), size_t{1000});
		QVERIFY(readAll(ring) == bytes);
	}

	void positionsNeverGoBack()
	{
		AudioRing ring;
		advanceTo(ring, AudioRing::kCapacity);
		advanceTo(ring, AudioRing::kCapacity);
		advanceTo(ring, 10);
		QCOMPARE(ring.writePosition.load(), 2 * AudioRing::kCapacity + 10);
		QCOMPARE(ring.readPosition.load(), 2 * AudioRing::kCapacity + 10);
	}

	void discardDropsWhatIsQueued()
	{
		AudioRing ring;
		const auto stale = countingBytes(5000);
		ring.write(stale.data(), stale.size());
		ring.discard();
		QCOMPARE(ring.held(), size_t{0});
		QCOMPARE(ring.readPosition.load(), ring.writePosition.load());

		const auto fresh = countingBytes(12, 200);
		ring.write(fresh.data(), fresh.size());
		QVERIFY2(readAll(ring) == fresh, "what is written after the discard is read");
	}

	/** Samples counting up go through while both ends run as fast as they can. */
	void twoThreadsLoseAndReorderNothing()
	{
		constexpr uint64_t kBytes = 64 * AudioRing::kCapacity;
		constexpr auto kDeadline = std::chrono::seconds(60);
		AudioRing ring;
		std::atomic<bool> stop{false};

		std::thread producer([&ring, &stop] {
			uint16_t next = 0;
			uint64_t written = 0;
			std::array<uint16_t, 342> chunk{};
			while (written < kBytes && !stop.load()) {
				for (size_t i = 0; i < chunk.size(); ++i) {
					chunk[i] = static_cast<uint16_t>(next + i);
				}
				const size_t wanted = std::min<uint64_t>(sizeof chunk, kBytes - written);
				const size_t taken = ring.write(chunk.data(), wanted);
				next = static_cast<uint16_t>(next + taken / 2);
				written += taken;
				if (taken < wanted) {
					std::this_thread::yield();
				}
			}
		});

		const auto begin = std::chrono::steady_clock::now();
		uint16_t expected = 0;
		uint64_t received = 0;
		uint64_t wrong = 0;
		std::array<uint16_t, 160> frame{};
		while (received < kBytes && std::chrono::steady_clock::now() - begin < kDeadline) {
			const size_t bytes = ring.read(frame.data(), sizeof frame);
			for (size_t i = 0; i < bytes / 2; ++i) {
				wrong += frame[i] != expected++;
			}
			received += bytes;
			if (bytes == 0) {
				std::this_thread::yield();
			}
		}
		stop.store(true);
		producer.join();

		QCOMPARE(received, kBytes);
		QCOMPARE(wrong, uint64_t{0});
		QCOMPARE(ring.held(), size_t{0});
	}

	/** After a discard the consumer sees a later stretch of what was written, still without a gap in it. */
	void discardWhileTheProducerWritesKeepsSamplesWhole()
	{
		AudioRing ring;
		std::atomic<bool> stop{false};
		std::thread producer([&ring, &stop] {
			uint16_t next = 0;
			while (!stop.load()) {
				std::array<uint16_t, 341> chunk{};
				std::iota(chunk.begin(), chunk.end(), next);
				next = static_cast<uint16_t>(next + ring.write(chunk.data(), sizeof chunk) / 2);
				std::this_thread::yield();
			}
		});

		uint64_t gaps = 0;
		for (int round = 0; round < 1000; ++round) {
			ring.discard();
			std::array<uint16_t, 160> frame{};
			size_t bytes = 0;
			while (bytes == 0) {
				std::this_thread::yield();
				bytes = ring.read(frame.data(), sizeof frame);
			}
			for (size_t i = 1; i < bytes / 2; ++i) {
				gaps += frame[i] != static_cast<uint16_t>(frame[i - 1] + 1);
			}
		}
		stop.store(true);
		producer.join();
		QCOMPARE(gaps, uint64_t{0});
	}
};

QTEST_APPLESS_MAIN(AudioRingTest)
#include "audio-ring-test.moc"
