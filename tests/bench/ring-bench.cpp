// SPDX-License-Identifier: GPL-2.0-or-later
// Samples from one thread to another: 341 at a time in, 160 at a time out.
#include "client/audio-ring.h"

#include "timing.h"

#include <array>
#include <boost/lockfree/spsc_queue.hpp>
#include <cstring>
#include <readerwriterqueue.h>
#include <thread>

namespace {

constexpr size_t kWrite = 341;
constexpr size_t kRead = 160;
constexpr size_t kHeld = AudioRing::kCapacity / sizeof(int16_t);
constexpr size_t kSamples = size_t{8} * 1024 * 1024;

/** Both ends give way when there is nothing to do, so that two cores that others use too are shared fairly. */
template <typename Write, typename Read> void transfer(benchmark::State &state, Write &&write, Read &&read)
{
	const std::vector<int16_t> source = speechNoise(kWrite, 1);
	for (auto _ : state) {
		const double seconds = secondsOf([&] {
			std::thread producer([&] {
				for (size_t sent = 0; sent < kSamples;) {
					const size_t count = std::min(kWrite, kSamples - sent);
					size_t taken = 0;
					while (taken < count) {
						const size_t more = write(source.data() + taken, count - taken);
						if (more == 0) {
							std::this_thread::yield();
						}
						taken += more;
					}
					sent += count;
				}
			});
			std::array<int16_t, kRead> out;
			for (size_t received = 0; received < kSamples;) {
				const size_t count = read(out.data(), kRead);
				touched(out.data());
				if (count == 0) {
					std::this_thread::yield();
				}
				received += count;
			}
			producer.join();
		});
		state.SetIterationTime(seconds);
	}
	state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(kSamples * sizeof(int16_t)));
	state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(kSamples / kWrite));
}

void ringOurs(benchmark::State &state)
{
	AudioRing ring;
	transfer(
		state,
		[&](const int16_t *samples, size_t count) {
			return ring.write(samples, count * sizeof(int16_t)) / sizeof(int16_t);
		},
		[&](int16_t *out, size_t count) { return ring.read(out, count * sizeof(int16_t)) / sizeof(int16_t); });
}
BENCHMARK(ringOurs)->Name("ring/ours")->UseManualTime();

void ringBoost(benchmark::State &state)
{
	const auto ring = std::make_unique<boost::lockfree::spsc_queue<int16_t, boost::lockfree::capacity<kHeld>>>();
	transfer(
		state, [&](const int16_t *samples, size_t count) { return ring->push(samples, count); },
		[&](int16_t *out, size_t count) { return ring->pop(out, count); });
}
BENCHMARK(ringBoost)->Name("ring/boost")->UseManualTime();

/** It takes its elements one by one. */
void ringMoodycamel(benchmark::State &state)
{
	moodycamel::ReaderWriterQueue<int16_t> ring(kHeld);
	transfer(
		state,
		[&](const int16_t *samples, size_t count) {
			size_t taken = 0;
			while (taken < count && ring.try_enqueue(samples[taken])) {
				++taken;
			}
			return taken;
		},
		[&](int16_t *out, size_t count) {
			size_t taken = 0;
			while (taken < count && ring.try_dequeue(out[taken])) {
				++taken;
			}
			return taken;
		});
}
BENCHMARK(ringMoodycamel)->Name("ring/moodycamel")->UseManualTime();

/** The copying alone, in and out, on one thread. */
void ringMemcpy(benchmark::State &state)
{
	const std::vector<int16_t> source = speechNoise(kWrite, 1);
	std::vector<char> store(AudioRing::kCapacity);
	std::array<int16_t, kRead> out;
	constexpr size_t round = kWrite * kRead;
	constexpr size_t bytes = round * sizeof(int16_t);
	for (auto _ : state) {
		for (size_t at = 0; at < bytes; at += kWrite * sizeof(int16_t)) {
			std::memcpy(store.data() + at, source.data(), kWrite * sizeof(int16_t));
		}
		touched(store.data());
		for (size_t at = 0; at < bytes; at += kRead * sizeof(int16_t)) {
			std::memcpy(out.data(), store.data() + at, sizeof(out));
			touched(out.data());
		}
	}
	state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(bytes));
	state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(kRead));
}
BENCHMARK(ringMemcpy)->Name("ring/memcpy");

} // namespace
