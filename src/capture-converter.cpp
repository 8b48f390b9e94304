// SPDX-License-Identifier: GPL-2.0-or-later
#include "capture-converter.h"

#include "sample-loops.h"

#include <algorithm>

void CaptureConverter::reset()
{
	carry = {};
	carryCount = 0;
}

std::span<const int16_t> CaptureConverter::convert(const float *left, const float *right, size_t frames)
{
	const size_t used = std::min(frames, kMaxFrames);
	std::copy_n(carry.begin(), carryCount, mono.begin());
	sample_loops::downmix(left, right, used, mono.data() + carryCount);

	const size_t total = carryCount + used;
	const size_t count = total / kDecimation;
	const size_t usable = count * kDecimation;
	carryCount = total - usable;
	std::copy_n(mono.begin() + static_cast<ptrdiff_t>(usable), carryCount, carry.begin());

	sample_loops::decimateAndQuantise(mono.data(), count, quantised.data());
	return {quantised.data(), count};
}
