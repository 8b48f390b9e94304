// SPDX-License-Identifier: GPL-2.0-or-later
#pragma once

#include <cmath>
#include <cstddef>
#include <cstdint>

/**
 * Brings speech to the output rate by linear interpolation, continuously over all pieces pushed into it.
 *
 * Every input sample moves a phase on by the ratio of the rates; each whole unit in it is an output sample on the
 * straight line from the previous input sample to this one. Between multiples of the input rate (24000 to 48000 Hz)
 * the length is exact. One thread at a time.
 */
class SpeechResampler {
public:
	/** Starts anew from silence. */
	void reset()
	{
		phase = 0.0;
		last = 0.0f;
	}

	/** How many samples resample() will make of `count` samples. @param ratio output rate / input rate, above 0 */
	uint64_t outputCount(size_t count, double ratio) const
	{
		double probe = phase;
		uint64_t made = 0;
		for (size_t i = 0; i < count; ++i) {
			made += advance(probe, ratio);
		}
		return made;
	}

	/**
	 * Resamples one piece.
	 * @param skipped how many output samples at the start are not wanted
	 * @param append called with each further output sample, -1 to 1
	 */
	template <typename Append>
	void resample(const int16_t *pcm, size_t count, double ratio, uint64_t skipped, Append &&append)
	{
		for (size_t i = 0; i < count; ++i) {
			const float x = static_cast<float>(pcm[i]) / 32768.0f;
			const uint64_t n = advance(phase, ratio);
			if (n <= skipped) {
				skipped -= n;
			} else {
				const float step = (x - last) / static_cast<float>(n);
				for (uint64_t k = skipped + 1; k <= n; ++k) {
					append(last + static_cast<float>(k) * step);
				}
				skipped = 0;
			}
			last = x;
		}
	}

private:
	/** Moves the phase on by one input sample and takes its whole units off (exact in binary arithmetic). */
	static uint64_t advance(double &position, double ratio)
	{
		position += ratio;
		const double whole = std::floor(position);
		position -= whole;
		return static_cast<uint64_t>(whole);
	}

	double phase = 0.0;
	float last = 0.0f;
};
