// SPDX-License-Identifier: GPL-2.0-or-later
#include "audio/gain-ramp.h"

#include "loops/sample-loops.h"

#include <bit>
#include <cmath>

// Each gain is the previous one plus the step, rounded: computed one by one, each addition waits for the one before.
// But between two powers of two all floats are equally far apart. There every step is rounded to the same stride, a
// whole number of these distances, so that a gain plus any number of strides is exact. (A step half-way between two
// strides is rounded to the even result, so the first stride may differ from the rest.)

namespace {

/** The bits of a float's exponent; alone they are the power of two at or below the float. */
constexpr uint32_t kExponentBits = 0x7f800000;

float powerOfTwoBelow(float value)
{
	return std::bit_cast<float>(std::bit_cast<uint32_t>(value) & kExponentBits);
}

} // namespace

void GainRamp::fill(float *out, size_t count)
{
	size_t done = 0;
	while (done < count) {
		const float before = gain;
		out[done++] = next();
		// The gain has arrived, or the step is too small to change it.
		if (gain == before) {
			std::fill(out + done, out + count, gain);
			return;
		}
		if (done == count) {
			return;
		}
		const float first = gain;
		out[done++] = next();
		if (powerOfTwoBelow(before) != powerOfTwoBelow(gain)) {
			continue;
		}
		const float stride = gain - first;
		const size_t strides = stepsInStride(stride, count - done);
		if (strides > 0) {
			sample_loops::line(gain, stride, strides, out + done);
			done += strides;
			gain = out[done - 1];
		}
	}
}

/** How many strides, `most` at most, surely end short of the target and of the next power of two. */
size_t GainRamp::stepsInStride(float stride, size_t most) const
{
	if (stride == 0.0f) {
		return 0;
	}
	const float below = powerOfTwoBelow(gain);
	const float end = stride > 0.0f ? std::min(target, 2.0f * below) : std::max(target, below);
	// Two strides less than the quotient says, which is rounded.
	const float strides = (end - gain) / stride - 2.0f;
	return strides > 0.0f ? static_cast<size_t>(std::min(strides, static_cast<float>(most))) : 0;
}
