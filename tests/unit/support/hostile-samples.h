// SPDX-License-Identifier: GPL-2.0-or-later
#pragma once

#include <cfloat>
#include <cstddef>
#include <iterator>
#include <limits>
#include <random>
#include <vector>

/** Mostly ordinary samples, at and beyond full scale, with what no sample should be in between. */
inline std::vector<float> hostileSamples(std::mt19937 &random, size_t count)
{
	constexpr float kNan = std::numeric_limits<float>::quiet_NaN();
	constexpr float kInfinity = std::numeric_limits<float>::infinity();
	static const float strange[] = {kNan,     -kNan,        kInfinity,    -kInfinity, FLT_MAX,  -FLT_MAX, FLT_MIN,
					-FLT_MIN, FLT_TRUE_MIN, 1.0f,         -1.0f,      0.0f,     -0.0f,    2.0f,
					-2.0f,    0.99999994f,  -0.99999994f, 3.05e-5f,   -3.05e-5f};
	std::uniform_real_distribution<float> sample(-1.2f, 1.2f);
	std::uniform_int_distribution<size_t> pick(0, 10 * std::size(strange) - 1);
	std::vector<float> samples(count);
	for (float &s : samples) {
		const size_t i = pick(random);
		s = i < std::size(strange) ? strange[i] : sample(random);
	}
	return samples;
}
