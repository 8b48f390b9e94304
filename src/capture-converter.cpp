// SPDX-License-Identifier: GPL-2.0-or-later
#include "capture-converter.h"

#include <algorithm>

namespace {

constexpr float kFullScale = 32767.0f;

// The loops are plain and separate, over restricted pointers, so that the compiler turns each into vector code.

void downmix(const float *left, const float *right, size_t frames, float *__restrict mono)
{
	for (size_t i = 0; i < frames; ++i) {
		mono[i] = (left[i] + right[i]) * 0.5f;
	}
}

void decimate(const float *__restrict mono, size_t count, float *__restrict out)
{
	for (size_t k = 0; k < count; ++k) {
		out[k] = (mono[3 * k] + mono[3 * k + 1] + mono[3 * k + 2]) / 3.0f;
	}
}

void quantise(const float *__restrict in, size_t count, int16_t *__restrict out)
{
	for (size_t k = 0; k < count; ++k) {
		// Written as "not below" and "not above" so that NaN comes out at full scale instead of undefined.
		const float upper = in[k] < 1.0f ? in[k] : 1.0f;
		const float value = upper > -1.0f ? upper : -1.0f;
		out[k] = static_cast<int16_t>(static_cast<int32_t>(value * kFullScale));
	}
}

} // namespace

void CaptureConverter::reset()
{
	carry = {};
	carryCount = 0;
}

std::span<const int16_t> CaptureConverter::convert(const float *left, const float *right, size_t frames)
{
	const size_t used = std::min(frames, kMaxFrames);
	std::copy_n(carry.begin(), carryCount, mono.begin());
	downmix(left, right, used, mono.data() + carryCount);

	const size_t total = carryCount + used;
	const size_t count = total / kDecimation;
	const size_t usable = count * kDecimation;
	carryCount = total - usable;
	std::copy_n(mono.begin() + static_cast<ptrdiff_t>(usable), carryCount, carry.begin());

	decimate(mono.data(), count, decimated.data());
	quantise(decimated.data(), count, quantised.data());
	return {quantised.data(), count};
}
