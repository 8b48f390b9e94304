// SPDX-License-Identifier: GPL-2.0-or-later
#include "loops/sample-loops.h"

#include "loops/vector-code.h"

#if defined(__OPTIMIZE__) && !defined(TALVORA_FAST_LOOPS) && !defined(TALVORA_COMMON_CODE)
#error "Compile this file with -O3 -fno-trapping-math and TALVORA_FAST_LOOPS, as src/CMakeLists.txt does: its loops are slow otherwise."
#endif

namespace {

constexpr float kFullScale = 32767.0f;

} // namespace

namespace sample_loops {

TALVORA_VECTOR_CODE
void downmix(const float *left, const float *right, size_t frames, float *__restrict mono)
{
	for (size_t i = 0; i < frames; ++i) {
		mono[i] = (left[i] + right[i]) * 0.5f;
	}
}

TALVORA_VECTOR_CODE
void decimateAndQuantise(const float *__restrict mono, size_t count, int16_t *__restrict out)
{
	for (size_t k = 0; k < count; ++k) {
		const float average = (mono[3 * k] + mono[3 * k + 1] + mono[3 * k + 2]) / 3.0f;
		// Converting NaN to an integer is undefined. These comparisons, false for NaN, make it full scale.
		const float upper = average < 1.0f ? average : 1.0f;
		const float value = upper > -1.0f ? upper : -1.0f;
		out[k] = static_cast<int16_t>(static_cast<int32_t>(value * kFullScale));
	}
}

TALVORA_VECTOR_CODE
void applyGains(const float *in, const float *gains, size_t count, float *__restrict out)
{
	for (size_t i = 0; i < count; ++i) {
		out[i] = in[i] * gains[i];
	}
}

TALVORA_VECTOR_CODE
void mixVoice(const float *left, const float *right, const float *gains, const float *voice, float voiceGain,
	      size_t count, float *__restrict outLeft, float *__restrict outRight)
{
	const auto clamped = [](float sum) {
		// In this order NaN stays NaN.
		const float lower = sum < -1.0f ? -1.0f : sum;
		return lower > 1.0f ? 1.0f : lower;
	};
	for (size_t i = 0; i < count; ++i) {
		const float spoken = voice[i] * voiceGain;
		outLeft[i] = clamped(left[i] * gains[i] + spoken);
		outRight[i] = clamped(right[i] * gains[i] + spoken);
	}
}

TALVORA_VECTOR_CODE
void line(float from, float step, size_t count, float *__restrict out)
{
	for (size_t k = 0; k < count; ++k) {
		// int32_t, because every instruction set converts it to float in one instruction.
		out[k] = from + static_cast<float>(static_cast<int32_t>(k + 1)) * step;
	}
}

TALVORA_VECTOR_CODE
size_t stretch(float before, const int16_t *pcm, size_t count, uint64_t &position, uint64_t perSample,
	       float *__restrict out)
{
	constexpr int kPhaseBits = 51;
	constexpr size_t kBlock = 256;
	constexpr float kPlaces[kStretchRoom] = {1.0f, 2.0f, 3.0f, 4.0f};
	float samples[kBlock + 1];
	float steps[kBlock];
	uint32_t made[kBlock];
	samples[0] = before;
	size_t done = 0;
	for (size_t start = 0; start < count; start += kBlock) {
		const size_t length = count - start < kBlock ? count - start : kBlock;
		for (size_t i = 0; i < length; ++i) {
			samples[i + 1] = toFloat(pcm[start + i]);
			// The multiplication may wrap around; that drops whole phases only. The difference modulo 4 is
			// still right, since the ratio is below 3.
			const uint64_t from = (position + i * perSample) >> kPhaseBits;
			const uint64_t to = (position + (i + 1) * perSample) >> kPhaseBits;
			made[i] = static_cast<uint32_t>(to - from) & 3;
		}
		for (size_t i = 0; i < length; ++i) {
			// The step of a sample from which none is made is not used.
			const uint32_t divisor = made[i] > 1 ? made[i] : 1;
			steps[i] = (samples[i + 1] - samples[i]) / static_cast<float>(static_cast<int32_t>(divisor));
		}
		for (size_t i = 0; i < length; ++i) {
			for (size_t k = 0; k < kStretchRoom; ++k) {
				out[done + k] = samples[i] + kPlaces[k] * steps[i];
			}
			done += made[i];
		}
		position += length * perSample;
		samples[0] = samples[length];
	}
	position &= (uint64_t{1} << kPhaseBits) - 1;
	return done;
}

TALVORA_VECTOR_CODE
void markTags(const unsigned char *bytes, size_t count, unsigned char *__restrict marks)
{
	// `|` and `&` instead of `||` and `&&`: without branches the compiler makes vector code of it.
	const auto isLetter = [](unsigned char c) {
		const auto lower = static_cast<unsigned char>(c | 0x20);
		return static_cast<unsigned char>(static_cast<unsigned char>(lower - 'a') < 26) |
		       static_cast<unsigned char>(c == '-');
	};
	for (size_t i = 0; i < count; ++i) {
		const auto isLength = static_cast<unsigned char>(static_cast<unsigned char>(bytes[i] - 2) < 9);
		marks[i] = static_cast<unsigned char>(isLength & isLetter(bytes[i + 1]) & isLetter(bytes[i + 2]));
	}
}

} // namespace sample_loops
