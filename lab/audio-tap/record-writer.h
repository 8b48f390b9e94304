// SPDX-License-Identifier: GPL-2.0-or-later
#pragma once

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <span>
#include <thread>
#include <vector>

/// What stands before the samples of a chunk, in the machine's byte order. The samples follow, 32-bit floats, channel
/// by channel. lab/audio_tap.py reads it.
struct RecordHeader {
	uint32_t source;    ///< which of the sources that were asked for, from 0; lastRecord in the last record
	uint32_t life;      ///< another number for every source that came up under the name, from 1
	uint64_t timestamp; ///< OBS's time of the chunk, ns
	uint64_t arrival;   ///< os_gettime_ns when the callback was called
	uint32_t thread;    ///< the thread it was called on
	uint32_t frames;
	uint32_t channels;
	uint32_t muted; ///< 1 when OBS called the chunk muted
};
static_assert(sizeof(RecordHeader) == 40);

/// In the last record `timestamp` is how many records were written, `arrival` how many were lost for want of room.
constexpr uint32_t lastRecord = UINT32_MAX;

/// Takes records from OBS's audio threads and writes them, in the order of the calls, to files in a folder: tap-00000,
/// and with each further 64 MiB another one.
class RecordWriter {
public:
	/// The folder is there.
	explicit RecordWriter(std::filesystem::path folder);
	/// Writes what is left, and the last record.
	~RecordWriter();
	RecordWriter(const RecordWriter &) = delete;
	RecordWriter &operator=(const RecordWriter &) = delete;

	/// Any thread. Copies, allocates nothing and never waits for the disk: where the memory is full the record is
	/// lost and counted.
	void put(const RecordHeader &header, const uint8_t *const *channels);

private:
	void run();
	// All below under the mutex.
	void copyIn(const void *data, size_t size);
	// All below on the writer's thread.
	void write(std::span<const char> bytes);
	void writeRing(size_t begin, size_t size);
	void openNext();

	const std::filesystem::path folder;
	std::mutex mutex;
	std::condition_variable news;
	/// Filled from the start, so that it is in memory for good.
	std::vector<char> ring;
	size_t readAt = 0;
	size_t held = 0;
	uint64_t written = 0;
	uint64_t lost = 0;
	bool ending = false;

	std::ofstream file;
	unsigned files = 0;
	size_t fileSize = 0;

	std::thread thread;
};
