// SPDX-License-Identifier: GPL-2.0-or-later
#include "blocking-guard.h"

#include <ctime>
#include <dlfcn.h>
#include <poll.h>
#include <pthread.h>
#include <semaphore.h>
#include <sys/select.h>
#include <sys/types.h>
#include <unistd.h>

#include <algorithm>

namespace {

thread_local constinit BlockingGuard *current = nullptr;

constexpr size_t kMaxHoldTimes = 8;
constinit std::array<std::atomic<HoldTimes *>, kMaxHoldTimes> hold_times{};

int64_t now(clockid_t clock)
{
	timespec time{};
	clock_gettime(clock, &time);
	return int64_t{time.tv_sec} * 1'000'000'000 + time.tv_nsec;
}

/** A watched lock that this thread holds exclusively. */
struct Held {
	const void *lock = nullptr;
	int64_t processor = 0;
	int64_t clock = 0;
};
thread_local constinit std::array<Held, kMaxHoldTimes> held{};

void note_locked(const void *lock)
{
	// What a watched thread holds it cannot meet taken.
	if (!current && HoldTimes::of(lock)) {
		const auto free = std::find_if(held.begin(), held.end(), [](const Held &hold) { return !hold.lock; });
		if (free != held.end()) {
			*free = {lock, now(CLOCK_THREAD_CPUTIME_ID), now(CLOCK_MONOTONIC)};
		}
	}
}

void note_unlocking(const void *lock)
{
	const auto found =
		std::find_if(held.begin(), held.end(), [lock](const Held &hold) { return hold.lock == lock; });
	if (found == held.end()) {
		return;
	}
	if (HoldTimes *times = HoldTimes::of(lock)) {
		times->note(now(CLOCK_THREAD_CPUTIME_ID) - found->processor, now(CLOCK_MONOTONIC) - found->clock);
	}
	found->lock = nullptr;
}

} // namespace

namespace {

/** The C library's own function behind the one that is put in its place here. */
class Real {
public:
	explicit constexpr Real(const char *functionName) : name(functionName) {}

	template <typename Function> Function *as()
	{
		void *function = known.load(std::memory_order_relaxed);
		if (!function) {
			function = dlsym(RTLD_NEXT, name);
			known.store(function, std::memory_order_relaxed);
		}
		return reinterpret_cast<Function *>(function);
	}

private:
	const char *name;
	std::atomic<void *> known{nullptr};
};

/** Takes a lock and tells how long that took; nothing when it was free. */
template <typename Lock> int take(Lock *lock, int (*tryLock)(Lock *), int (*lockReal)(Lock *))
{
	BlockingGuard *guard = BlockingGuard::watching();
	if (!guard) {
		return lockReal(lock);
	}
	guard->noteLock(lock);
	if (tryLock(lock) == 0) {
		return 0;
	}
	guard->noteContention();
	const int64_t started = now(CLOCK_MONOTONIC);
	const int result = lockReal(lock);
	guard->noteContended(now(CLOCK_MONOTONIC) - started);
	return result;
}

} // namespace

#define BLOCKING_GUARD_EXPORT extern "C" __attribute__((visibility("default")))

// Functions that wait by their nature: told, then done. Parameters in a list of types can have no parentheses around
// them. NOLINTBEGIN(bugprone-macro-parentheses)
#define WAITS(result, name, parameters, arguments)                      \
	namespace {                                                     \
	constinit Real real_##name(#name);                              \
	}                                                               \
	BLOCKING_GUARD_EXPORT result name parameters                    \
	{                                                               \
		if (BlockingGuard *guard = BlockingGuard::watching()) { \
			guard->noteWait(#name);                         \
		}                                                       \
		return real_##name.as<result parameters>() arguments;   \
	}
// NOLINTEND(bugprone-macro-parentheses)

WAITS(int, nanosleep, (const timespec *wanted, timespec *left), (wanted, left))
WAITS(int, clock_nanosleep, (clockid_t clock, int flags, const timespec *wanted, timespec *left),
      (clock, flags, wanted, left))
WAITS(int, usleep, (useconds_t wanted), (wanted))
WAITS(int, sched_yield, (), ())
WAITS(int, sem_wait, (sem_t * semaphore), (semaphore))
WAITS(int, pthread_cond_wait, (pthread_cond_t * condition, pthread_mutex_t *mutex), (condition, mutex))
WAITS(int, pthread_cond_timedwait, (pthread_cond_t * condition, pthread_mutex_t *mutex, const timespec *until),
      (condition, mutex, until))
WAITS(int, pthread_join, (pthread_t thread, void **result), (thread, result))
WAITS(int, poll, (pollfd * files, nfds_t count, int timeout), (files, count, timeout))
WAITS(ssize_t, read, (int file, void *data, size_t bytes), (file, data, bytes))
WAITS(ssize_t, write, (int file, const void *data, size_t bytes), (file, data, bytes))
WAITS(int, fsync, (int file), (file))

namespace {

constinit Real real_pthread_mutex_lock("pthread_mutex_lock");
constinit Real real_pthread_mutex_unlock("pthread_mutex_unlock");
constinit Real real_pthread_rwlock_rdlock("pthread_rwlock_rdlock");
constinit Real real_pthread_rwlock_wrlock("pthread_rwlock_wrlock");
constinit Real real_pthread_rwlock_unlock("pthread_rwlock_unlock");

} // namespace

BLOCKING_GUARD_EXPORT int pthread_mutex_lock(pthread_mutex_t *mutex)
{
	const int result = take(mutex, pthread_mutex_trylock, real_pthread_mutex_lock.as<int(pthread_mutex_t *)>());
	note_locked(mutex);
	return result;
}

BLOCKING_GUARD_EXPORT int pthread_mutex_unlock(pthread_mutex_t *mutex)
{
	note_unlocking(mutex);
	return real_pthread_mutex_unlock.as<int(pthread_mutex_t *)>()(mutex);
}

BLOCKING_GUARD_EXPORT int pthread_rwlock_rdlock(pthread_rwlock_t *lock)
{
	return take(lock, pthread_rwlock_tryrdlock, real_pthread_rwlock_rdlock.as<int(pthread_rwlock_t *)>());
}

BLOCKING_GUARD_EXPORT int pthread_rwlock_wrlock(pthread_rwlock_t *lock)
{
	const int result =
		take(lock, pthread_rwlock_trywrlock, real_pthread_rwlock_wrlock.as<int(pthread_rwlock_t *)>());
	note_locked(lock);
	return result;
}

BLOCKING_GUARD_EXPORT int pthread_rwlock_unlock(pthread_rwlock_t *lock)
{
	note_unlocking(lock);
	return real_pthread_rwlock_unlock.as<int(pthread_rwlock_t *)>()(lock);
}

BlockingGuard::BlockingGuard() : outer(current)
{
	current = this;
}

BlockingGuard::~BlockingGuard()
{
	stop();
}

void BlockingGuard::stop()
{
	if (active) {
		active = false;
		current = outer;
	}
}

BlockingGuard *BlockingGuard::watching()
{
	return current;
}

void BlockingGuard::noteWait(const char *name)
{
	if (waitCount++ == 0) {
		first = name;
	}
}

void BlockingGuard::noteLock(const void *lock)
{
	if (!locked(lock) && lockCount < kMaxLocks) {
		taken[lockCount++] = lock;
	}
}

void BlockingGuard::noteContention()
{
	++contentionCount;
}

void BlockingGuard::noteContended(int64_t waited)
{
	longest = std::max(longest, waited);
}

bool BlockingGuard::locked(const void *lock) const
{
	return std::find(taken.begin(), taken.begin() + lockCount, lock) != taken.begin() + lockCount;
}

BlockingGuard::Permit::Permit() : suspended(current)
{
	current = nullptr;
}

BlockingGuard::Permit::~Permit()
{
	current = suspended;
}

HoldTimes::HoldTimes(const void *lock) : watched(lock)
{
	for (auto &place : hold_times) {
		HoldTimes *none = nullptr;
		if (place.compare_exchange_strong(none, this)) {
			return;
		}
	}
}

HoldTimes::~HoldTimes()
{
	for (auto &place : hold_times) {
		HoldTimes *self = this;
		place.compare_exchange_strong(self, nullptr);
	}
}

HoldTimes *HoldTimes::of(const void *lock)
{
	for (auto &place : hold_times) {
		HoldTimes *times = place.load(std::memory_order_acquire);
		if (times && times->watched == lock) {
			return times;
		}
	}
	return nullptr;
}

void HoldTimes::note(int64_t onProcessor, int64_t onClock)
{
	const auto raise = [](std::atomic<int64_t> &most, int64_t value) {
		int64_t known = most;
		while (known < value && !most.compare_exchange_weak(known, value)) {
		}
	};
	raise(processor, onProcessor);
	raise(clock, onClock);
	++holds;
}
