// SPDX-License-Identifier: GPL-2.0-or-later
#include "heap-guard.h"

#include <util/bmem.h>

#include <QTest>

#include <cstdlib>
#include <memory>
#include <thread>
#include <vector>

class HeapGuardTest : public QObject {
	Q_OBJECT

private Q_SLOTS:
	void countsNothingWhenNothingIsAllocated();
	void countsEveryKindOfAllocation();
	void tellsTheFirstCall();
	void leavesOutWhatIsPermitted();
	void leavesOutOtherThreads();
	void leavesOutWhatComesAfterStop();
	void innerGuardTakesOver();

private:
	/** Keeps the compiler from leaving out a pair of allocation and free. */
	void *volatile memory = nullptr;
};

void HeapGuardTest::countsNothingWhenNothingIsAllocated()
{
	HeapGuard guard;
	std::free(nullptr);
	guard.stop();
	QCOMPARE(guard.calls(), 0);
	QCOMPARE(guard.report(), "the allocator was not called");
}

void HeapGuardTest::countsEveryKindOfAllocation()
{
	{
		HeapGuard guard;
		memory = std::malloc(3);
		std::free(memory);
		QVERIFY2(guard.calls() == 2, "malloc and free");
	}
	{
		HeapGuard guard;
		memory = std::calloc(3, 5);
		std::free(memory);
		QVERIFY2(guard.calls() == 2, "calloc and free");
	}
	{
		void *block = std::malloc(3);
		HeapGuard guard;
		memory = std::realloc(block, 100000);
		QVERIFY2(guard.calls() >= 1, "realloc");
		guard.stop();
		std::free(memory);
	}
	{
		HeapGuard guard;
		memory = std::aligned_alloc(64, 64);
		std::free(memory);
		// The thread sanitizer has no hook for the allocation.
		QVERIFY2(guard.calls() >= 1, "aligned_alloc and free");
	}
	{
		HeapGuard guard;
		memory = ::operator new(3);
		::operator delete(memory);
		QVERIFY2(guard.calls() == 2, "new and delete");
	}
	{
		HeapGuard guard;
		memory = bmalloc(3);
		bfree(memory);
		QVERIFY2(guard.calls() == 2, "bmalloc and bfree");
	}
	{
		std::vector<int> numbers(3);
		HeapGuard guard;
		numbers.resize(3000);
		QVERIFY2(guard.calls() == 2, "a vector that grows");
	}
}

void HeapGuardTest::tellsTheFirstCall()
{
	HeapGuard guard;
	memory = std::malloc(77);
	std::free(memory);
	guard.stop();
	const QString report = QString::fromUtf8(guard.report());
	QVERIFY2(report.startsWith(QStringLiteral("the allocator was called 2 times, first ")), qPrintable(report));
	QVERIFY2(report.contains(QStringLiteral("(77 bytes)\n  from ")), qPrintable(report));
}

void HeapGuardTest::leavesOutWhatIsPermitted()
{
	HeapGuard guard;
	{
		const HeapGuard::Permit permit;
		memory = std::malloc(3);
		std::free(memory);
	}
	QCOMPARE(guard.calls(), 0);
	memory = std::malloc(3);
	std::free(memory);
	QCOMPARE(guard.calls(), 2);
}

void HeapGuardTest::leavesOutOtherThreads()
{
	HeapGuard guard;
	{
		// Starting and joining a thread allocates here.
		const HeapGuard::Permit permit;
		std::thread([this] {
			memory = std::malloc(3);
			std::free(memory);
		}).join();
	}
	QCOMPARE(guard.calls(), 0);
}

void HeapGuardTest::leavesOutWhatComesAfterStop()
{
	HeapGuard guard;
	guard.stop();
	memory = std::malloc(3);
	std::free(memory);
	QCOMPARE(guard.calls(), 0);
}

void HeapGuardTest::innerGuardTakesOver()
{
	HeapGuard outer;
	int inner = 0;
	{
		HeapGuard guard;
		memory = std::malloc(3);
		std::free(memory);
		inner = guard.calls();
	}
	QCOMPARE(outer.calls(), 0);
	QCOMPARE(inner, 2);
	memory = std::malloc(3);
	std::free(memory);
	QCOMPARE(outer.calls(), 2);
}

QTEST_APPLESS_MAIN(HeapGuardTest)
#include "heap-guard-test.moc"
