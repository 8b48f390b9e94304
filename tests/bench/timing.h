// SPDX-License-Identifier: GPL-2.0-or-later
#pragma once

#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdint>
#include <random>
#include <vector>

/** Seconds that `work` takes. */
template <typename Work> double secondsOf(Work &&work)
{
	const auto start = std::chrono::steady_clock::now();
	work();
	return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

/** What the compiler must take for read and changed. */
template <typename T> void touched(T *data)
{
	benchmark::DoNotOptimize(data);
	benchmark::ClobberMemory();
}

/** Samples between -0.9 and 0.9, without meaning. */
inline std::vector<float> noise(size_t count, uint32_t seed)
{
	std::mt19937 random(seed);
	std::uniform_real_distribution<float> sample(-0.9f, 0.9f);
	std::vector<float> samples(count);
	for (float &s : samples) {
		s = sample(random);
	}
	return samples;
}

inline std::vector<int16_t> speechNoise(size_t count, uint32_t seed)
{
	std::mt19937 random(seed);
	std::vector<int16_t> samples(count);
	for (int16_t &s : samples) {
		s = static_cast<int16_t>(random());
	}
	return samples;
}
