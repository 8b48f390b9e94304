// SPDX-License-Identifier: GPL-2.0-or-later
#include "audio/capture-converter.h"

#include "loops/sample-loops.h"

#include <algorithm>

void CaptureConverter::reset()
{
	carry = {};
	carryCount = 0;
}

std::span<const int16_t> CaptureConverter::convert(const float *left, const float *right, size_t frames)
{
	const size_t used = std::min(frames, kMaxFrames);
	size_t made = 0;
	for (size_t done = 0; done < used; done += kBlockFrames) {
		made += convertBlock(left + done, right + done, std::min(kBlockFrames, used - done),
				     quantised.data() + made);
	}
	return {quantised.data(), made};
}

size_t CaptureConverter::convertBlock(const float *left, const float *right, size_t frames, int16_t *out)
{
	std::copy_n(carry.begin(), carryCount, mono.begin());
	sample_loops::downmix(left, right, frames, mono.data() + carryCount);

	const size_t total = carryCount + frames;
	const size_t count = total / kDecimation;
	const size_t usable = count * kDecimation;
	carryCount = total - usable;
	std::copy_n(mono.begin() + static_cast<ptrdiff_t>(usable), carryCount, carry.begin());

	sample_loops::decimateAndQuantise(mono.data(), count, out);
	return count;
}
