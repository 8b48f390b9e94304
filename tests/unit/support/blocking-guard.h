// SPDX-License-Identifier: GPL-2.0-or-later
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>

/**
 * Sees what may make this thread wait while the object lives: locks, and calls that wait by their nature (sleeping,
 * waiting for a condition or a semaphore, reading, writing, polling, joining).
 *
 *     BlockingGuard guard;
 *     dub.pushOriginalAudio(left, right, frames, 48000, timestamp);
 *     guard.stop();
 *     QCOMPARE(guard.waits(), 0);
 *     QVERIFY(guard.locked(&dub.lock));
 *
 * Sees the C library's calls in the program and in every shared library, hence also std::mutex and std::shared_mutex.
 * Locks that are not the C library's, such as Qt's, are not seen. Not in a build with the thread sanitizer, which puts
 * itself in the same place.
 */
class BlockingGuard {
public:
	static constexpr size_t kMaxLocks = 16;

	BlockingGuard();
	~BlockingGuard();

	BlockingGuard(const BlockingGuard &) = delete;
	BlockingGuard &operator=(const BlockingGuard &) = delete;

	/** Ends the watching before the object goes; the results stay. */
	void stop();

	/** Calls seen that wait by their nature. */
	int waits() const { return waitCount; }
	/** The name of the first of them, or "none". */
	const char *firstWait() const { return first; }

	/** How many different locks were taken; kMaxLocks at most are told apart. */
	size_t locks() const { return lockCount; }
	/** Whether this lock was among them. */
	bool locked(const void *lock) const;
	/** How often a lock was held by another thread, so that this one waits or has waited. Any thread may ask. */
	int contentions() const { return contentionCount; }
	/** The longest of these waits, ns. */
	int64_t longestWait() const { return longest; }

	/** Lets what this thread does pass unseen while it lives. */
	class Permit {
	public:
		Permit();
		~Permit();

		Permit(const Permit &) = delete;
		Permit &operator=(const Permit &) = delete;

	private:
		BlockingGuard *const suspended;
	};

	/** For the functions put in place of the C library's. */
	static BlockingGuard *watching();
	void noteWait(const char *name);
	void noteLock(const void *lock);
	void noteContention();
	/** @param waited ns */
	void noteContended(int64_t waited);

private:
	BlockingGuard *const outer;
	bool active = true;
	int waitCount = 0;
	const char *first = "none";
	std::array<const void *, kMaxLocks> taken{};
	size_t lockCount = 0;
	std::atomic<int> contentionCount = 0;
	int64_t longest = 0;
};

/**
 * Measures how long threads without a BlockingGuard hold one lock while the object lives, and hence may keep a thread
 * that meets it taken. Processor time, which does not count that the thread was put aside in between, and time on the
 * clock. What was seen, not what bounds it.
 */
class HoldTimes {
public:
	explicit HoldTimes(const void *lock);
	~HoldTimes();

	HoldTimes(const HoldTimes &) = delete;
	HoldTimes &operator=(const HoldTimes &) = delete;

	/** The longest time that one of them held it, other than shared, ns. */
	int64_t longestOnProcessor() const { return processor; }
	int64_t longestOnClock() const { return clock; }
	int count() const { return holds; }

	/** For the functions put in place of the C library's. */
	static HoldTimes *of(const void *lock);
	void note(int64_t onProcessor, int64_t onClock);

private:
	std::atomic<const void *> watched;
	std::atomic<int64_t> processor{0};
	std::atomic<int64_t> clock{0};
	std::atomic<int> holds{0};
};
