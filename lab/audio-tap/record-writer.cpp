// SPDX-License-Identifier: GPL-2.0-or-later
#include "record-writer.h"

#include <util/base.h>
#include <util/threading.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <utility>

namespace {

/// Five seconds of 33 sources in stereo at 48 kHz.
constexpr size_t kRingBytes = size_t{64} << 20;
constexpr size_t kFileBytes = size_t{64} << 20;

} // namespace

RecordWriter::RecordWriter(std::filesystem::path folder_)
	: folder(std::move(folder_)), ring(kRingBytes), thread([this] { run(); })
{
}

RecordWriter::~RecordWriter()
{
	{
		const std::lock_guard guard(mutex);
		ending = true;
	}
	news.notify_one();
	thread.join();
	blog(lost > 0 ? LOG_WARNING : LOG_INFO, "[talvora-lab-tap] %llu chunks written, %llu lost",
	     static_cast<unsigned long long>(written), static_cast<unsigned long long>(lost));
}

void RecordWriter::put(const RecordHeader &header, const uint8_t *const *channels)
{
	const size_t channelBytes = header.frames * sizeof(float);
	const size_t size = sizeof header + header.channels * channelBytes;
	{
		const std::lock_guard guard(mutex);
		if (size > ring.size() - held) {
			++lost;
			return;
		}
		copyIn(&header, sizeof header);
		for (uint32_t i = 0; i < header.channels; ++i) {
			copyIn(channels[i], channelBytes);
		}
		++written;
	}
	news.notify_one();
}

void RecordWriter::copyIn(const void *data, size_t size)
{
	const auto *bytes = static_cast<const char *>(data);
	const size_t at = (readAt + held) % ring.size();
	const size_t beforeWrap = std::min(size, ring.size() - at);
	memcpy(ring.data() + at, bytes, beforeWrap);
	memcpy(ring.data(), bytes + beforeWrap, size - beforeWrap);
	held += size;
}

void RecordWriter::run()
{
	os_set_thread_name("talvora-lab-tap");
	openNext();
	std::unique_lock lock(mutex);
	for (;;) {
		news.wait(lock, [this] { return held > 0 || ending; });
		if (held == 0) {
			break;
		}
		// Whole records, which nobody touches until they are given back.
		const size_t size = held;
		lock.unlock();
		writeRing(readAt, size);
		if (fileSize >= kFileBytes) {
			openNext();
		}
		lock.lock();
		readAt = (readAt + size) % ring.size();
		held -= size;
	}
	RecordHeader last = {};
	last.source = lastRecord;
	last.timestamp = written;
	last.arrival = lost;
	write({reinterpret_cast<const char *>(&last), sizeof last});
	file.close();
}

void RecordWriter::writeRing(size_t begin, size_t size)
{
	const size_t beforeWrap = std::min(size, ring.size() - begin);
	write({ring.data() + begin, beforeWrap});
	write({ring.data(), size - beforeWrap});
	file.flush();
}

void RecordWriter::write(std::span<const char> bytes)
{
	// After a failure nothing is written, not even the last record, so that a reader knows.
	if (!file) {
		return;
	}
	file.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
	fileSize += bytes.size();
	if (!file) {
		blog(LOG_ERROR, "[talvora-lab-tap] cannot write into '%s'", folder.c_str());
	}
}

void RecordWriter::openNext()
{
	if (!file) {
		return;
	}
	char name[16];
	snprintf(name, sizeof name, "tap-%05u", files++);
	if (file.is_open()) {
		file.close();
	}
	file.open(folder / name, std::ios::binary);
	fileSize = 0;
}
