// SPDX-License-Identifier: GPL-2.0-or-later
#include "audio/speech-resampler.h"

#include "loops/sample-loops.h"

#include <algorithm>
#include <cmath>

#if defined(__OPTIMIZE__) && !defined(TALVORA_FAST_LOOPS)
#error "Compile this file with -O3 -fno-trapping-math and TALVORA_FAST_LOOPS, as src/CMakeLists.txt does: its loops are slow otherwise."
#endif

namespace {

/** Whether `value` is a whole number of the phase's units. Sums of such values are exact below 4. */
bool isInUnits(double value)
{
	return std::floor(value * sample_loops::kWholePhase) == value * sample_loops::kWholePhase;
}

/** Moves the phase on by one input sample; returns its whole units and takes them off (exact in binary arithmetic). */
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
	// The whole units of the ratio, or one more.
	const double mostOfOne = std::floor(ratio) + 1.0;
	const bool fits = static_cast<double>(count) * mostOfOne <= static_cast<double>(most);
	if (fits && ratio < sample_loops::kStretchRatio && isInUnits(ratio) && isInUnits(phase)) {
		buffer.resize(std::max(buffer.size(), (count + 1) * sample_loops::kStretchRoom));
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

/** @return samples made */
size_t SpeechResampler::resampleFew(const int16_t *pcm, size_t count, double ratio)
{
	auto position = static_cast<uint64_t>(phase * sample_loops::kWholePhase);
	const auto perSample = static_cast<uint64_t>(ratio * sample_loops::kWholePhase);
	const size_t made = sample_loops::stretch(last, pcm, count, position, perSample, buffer.data());
	phase = static_cast<double>(position) / sample_loops::kWholePhase;
	last = count > 0 ? sample_loops::toFloat(pcm[count - 1]) : last;
	return made;
}

/** @param skipped how many output samples at the start are not wanted */
void SpeechResampler::resampleAny(const int16_t *pcm, size_t count, double ratio, uint64_t skipped)
{
	float *out = buffer.data();
	for (size_t i = 0; i < count; ++i) {
		const float to = sample_loops::toFloat(pcm[i]);
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
