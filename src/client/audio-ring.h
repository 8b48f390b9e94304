// SPDX-License-Identifier: GPL-2.0-or-later
#pragma once

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>

/**
 * Lock-free byte queue of fixed size for exactly one producer thread and one consumer thread (Lamport's ring buffer
 * with free-running positions).
 *
 * Carries 16-bit samples, so both ends move in even numbers of bytes only. When it is full the newest bytes are cut
 * and what is already queued stays. Neither end blocks; nothing is allocated after construction.
 */
// The padding keeps the two ends on cache lines of their own.
// NOLINTNEXTLINE(clang-analyzer-optin.performance.Padding)
class AudioRing {
public:
	/** Bytes; a power of two, so that a position's index is its low bits. */
	static constexpr uint64_t kCapacity = 262144;

	AudioRing() : store(std::make_unique<unsigned char[]>(kCapacity)) {}

	/** Producer: queues as many whole samples of `bytes` as fit. @return bytes taken, even, 0 to `bytes` */
	size_t write(const void *data, size_t bytes)
	{
		// Relaxed: only this thread writes it.
		const uint64_t write = writePosition.load(std::memory_order_relaxed);
		if (kCapacity - (write - readSeen) < bytes) {
			// Acquire, paired with the release in read(): the consumer has finished copying out of the
			// space that this value declares free, so overwriting it is safe.
			readSeen = readPosition.load(std::memory_order_acquire);
		}

		const uint64_t free = kCapacity - (write - readSeen);
		const size_t count = static_cast<size_t>(std::min<uint64_t>(bytes, free)) & ~size_t{1};
		if (count == 0) {
			return 0;
		}

		const size_t index = write & kMask;
		const size_t first = std::min<size_t>(count, kCapacity - index);
		std::memcpy(&store[index], data, first);
		std::memcpy(&store[0], static_cast<const unsigned char *>(data) + first, count - first);

		// Release: the bytes above are visible to whoever acquires this position.
		writePosition.store(write + count, std::memory_order_release);
		return count;
	}

	/** Consumer: takes the oldest whole samples, `maxBytes` bytes at most. @return bytes taken, even */
	size_t read(void *out, size_t maxBytes)
	{
		// Relaxed: only this thread writes it.
		const uint64_t read = readPosition.load(std::memory_order_relaxed);
		if (writeSeen - read < maxBytes) {
			// Acquire, paired with the release in write(): the bytes before this position are there to be
			// read.
			writeSeen = writePosition.load(std::memory_order_acquire);
		}

		const size_t count = static_cast<size_t>(std::min<uint64_t>(maxBytes, writeSeen - read)) & ~size_t{1};
		if (count == 0) {
			return 0;
		}

		const size_t index = read & kMask;
		const size_t first = std::min<size_t>(count, kCapacity - index);
		std::memcpy(out, &store[index], first);
		std::memcpy(static_cast<unsigned char *>(out) + first, &store[0], count - first);

		// Release: the copies above are done before the producer may see this space as free.
		readPosition.store(read + count, std::memory_order_release);
		return count;
	}

	/** Consumer: drops everything queued up to now. */
	void discard()
	{
		// Acquire and release for symmetry with read(): the producer may reuse the space at once.
		writeSeen = writePosition.load(std::memory_order_acquire);
		readPosition.store(writeSeen, std::memory_order_release);
	}

	/** Bytes queued. Exact on the two threads when the other one rests, else a moment's view. */
	size_t held() const
	{
		// The read position first: it never passes the write position, so the difference cannot be negative.
		const uint64_t read = readPosition.load(std::memory_order_acquire);
		return static_cast<size_t>(writePosition.load(std::memory_order_acquire) - read);
	}

private:
	friend class AudioRingTest;

	static constexpr uint64_t kMask = kCapacity - 1;
	static_assert((kCapacity & kMask) == 0, "the index of a position is taken with a mask");
	static_assert(std::atomic<uint64_t>::is_always_lock_free, "the audio thread must not meet a hidden lock");

	const std::unique_ptr<unsigned char[]> store;
	// Total bytes ever written and read; they never go back to zero. Each on a cache line of its own, because each
	// thread writes one of them all the time, together with what that thread last saw of the other's: it looks
	// again only when that is not enough, since each look takes the line away from the other thread.
	alignas(64) std::atomic<uint64_t> writePosition{0};
	uint64_t readSeen = 0;
	alignas(64) std::atomic<uint64_t> readPosition{0};
	uint64_t writeSeen = 0;
};
