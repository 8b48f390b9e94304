// SPDX-License-Identifier: GPL-2.0-or-later
#include "speech-resampler.h"

#include "sample-loops.h"

#include <algorithm>
#include <cmath>

namespace {

/** Output samples that are computed for every input sample, whether they count or not, when there are never more. */
constexpr size_t kFew = 4;

float toFloat(int16_t sample)
{
	return static_cast<float>(sample) / 32768.0f;
}

/** Moves the phase on by one input sample and takes its whole units off (exact in binary arithmetic). */
uint64_t advance(double &position, double ratio)
{
	position += ratio;
	const double whole = std::floor(position);
	position -= whole;
	return static_cast<uint64_t>(whole);
}

} // namespace

SpeechResampler::Made SpeechResampler::resample(const int16_t *pcm, size_t count, double ratio, size_t most)
{
	// As many whole units as the ratio has, or one more.
	const double mostOfOne = std::floor(ratio) + 1.0;
	const bool fits = static_cast<double>(count) * mostOfOne <= static_cast<double>(most);
	if (fits && ratio == 2.0 && phase == 0.0) {
		buffer.resize(std::max(buffer.size(), 2 * count));
		sample_loops::doubleRate(last, pcm, count, buffer.data());
		last = count > 0 ? toFloat(pcm[count - 1]) : last;
		return {{buffer.data(), 2 * count}, 2 * count};
	}
	if (fits && mostOfOne <= static_cast<double>(kFew)) {
		buffer.resize(std::max(buffer.size(), (count + 1) * kFew));
		const size_t made = resampleFew(pcm, count, ratio);
		return {{buffer.data(), made}, made};
	}
	const uint64_t made = countOf(count, ratio);
	const size_t kept = static_cast<size_t>(std::min<uint64_t>(made, most));
	buffer.resize(std::max(buffer.size(), kept));
	resampleAny(pcm, count, ratio, made - kept);
	return {{buffer.data(), kept}, made};
}

uint64_t SpeechResampler::countOf(size_t count, double ratio) const
{
	double probe = phase;
	uint64_t made = 0;
	for (size_t i = 0; i < count; ++i) {
		made += advance(probe, ratio);
	}
	return made;
}

/** For ratios below kFew: no loop over the samples made of one. @return samples made */
size_t SpeechResampler::resampleFew(const int16_t *pcm, size_t count, double ratio)
{
	const double fewer = std::floor(ratio);
	const double more = fewer + 1.0;
	const auto fewerSamples = static_cast<size_t>(fewer);
	const float fewerDivisor = std::max(static_cast<float>(fewer), 1.0f);
	const auto moreDivisor = static_cast<float>(more);
	double position = phase;
	float from = last;
	float *out = buffer.data();
	for (size_t i = 0; i < count; ++i) {
		position += ratio;
		// The phase was below 1 and the ratio is that of whole numbers, so it is one of the two.
		const bool isMore = position >= more;
		position -= isMore ? more : fewer;

		const float to = toFloat(pcm[i]);
		const float step = (to - from) / (isMore ? moreDivisor : fewerDivisor);
		for (size_t k = 0; k < kFew; ++k) {
			out[k] = from + static_cast<float>(k + 1) * step;
		}
		out += fewerSamples + (isMore ? 1 : 0);
		from = to;
	}
	phase = position;
	last = from;
	return static_cast<size_t>(out - buffer.data());
}

/** @param skipped how many output samples at the start are not wanted */
void SpeechResampler::resampleAny(const int16_t *pcm, size_t count, double ratio, uint64_t skipped)
{
	float *out = buffer.data();
	for (size_t i = 0; i < count; ++i) {
		const float to = toFloat(pcm[i]);
		const uint64_t made = advance(phase, ratio);
		if (made <= skipped) {
			skipped -= made;
		} else {
			const float step = (to - last) / static_cast<float>(made);
			for (uint64_t k = skipped + 1; k <= made; ++k) {
				*out++ = last + static_cast<float>(k) * step;
			}
			skipped = 0;
		}
		last = to;
	}
}
