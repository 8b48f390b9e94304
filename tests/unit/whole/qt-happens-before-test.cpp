// SPDX-License-Identifier: GPL-2.0-or-later
#include <QCoreApplication>
#include <QObject>
#include <QTest>
#include <QThread>

#include <array>
#include <atomic>
#include <memory>
#include <thread>

/** For ThreadSanitizer, which ends a test that hands anything over in a way that it takes for a race. */
class QtHappensBeforeTest : public QObject {
	Q_OBJECT

private Q_SLOTS:
	void receiverSeesWhatWasWrittenBefore();
	void receiverTakesUndeliveredAlong();
	void endedThreadHasDoneItsWork();
};

namespace {

constexpr int kPosted = 20000;
using Cargo = std::array<int, 4>;

} // namespace

void QtHappensBeforeTest::receiverSeesWhatWasWrittenBefore()
{
	QObject receiver;
	int received = 0;
	std::thread poster([&] {
		for (int number = 1; number <= kPosted; ++number) {
			const auto cargo = std::make_shared<Cargo>();
			cargo->fill(number);
			QMetaObject::invokeMethod(
				&receiver, [&received, cargo] { received = cargo->back(); }, Qt::QueuedConnection);
		}
	});
	// Never asleep, so that nothing but the events themselves hands anything over.
	while (received < kPosted) {
		QCoreApplication::sendPostedEvents();
	}
	poster.join();
	QCOMPARE(received, kPosted);
}

void QtHappensBeforeTest::receiverTakesUndeliveredAlong()
{
	const auto cargo = std::make_shared<Cargo>();
	auto receiver = std::make_unique<QObject>();
	std::atomic<bool> posted{false};
	std::thread poster([&posted, &cargo, to = receiver.get()] {
		QMetaObject::invokeMethod(
			to, [mine = std::make_unique<Cargo>(Cargo{7}), cargo] { QFAIL("delivered"); },
			Qt::QueuedConnection);
		posted.store(true, std::memory_order_relaxed);
	});
	while (!posted.load(std::memory_order_relaxed)) {
		std::this_thread::yield();
	}
	receiver.reset();
	QCOMPARE(cargo.use_count(), 1);
	poster.join();
}

void QtHappensBeforeTest::endedThreadHasDoneItsWork()
{
	for (int round = 0; round < 50; ++round) {
		Cargo cargo{};
		QThread thread;
		QObject worker;
		worker.moveToThread(&thread);
		thread.start();
		QMetaObject::invokeMethod(&worker, [&cargo, round] {
			cargo.fill(round);
			QThread::currentThread()->quit();
		});
		QVERIFY(thread.wait());
		QCOMPARE(cargo.back(), round);
	}
}

QTEST_GUILESS_MAIN(QtHappensBeforeTest)
#include "qt-happens-before-test.moc"
