// SPDX-License-Identifier: GPL-2.0-or-later
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

/**
 * Brings speech to the output rate by linear interpolation, continuously over all pieces pushed into it.
 *
 * Every input sample moves a phase on by the ratio of the rates; each whole unit in it is an output sample on the
 * straight line from the previous input sample to this one. Between multiples of the input rate (24000 to 48000 Hz)
 * the length is exact. One thread at a time.
 */
class SpeechResampler {
public:
	/** What was made of a piece. */
	struct Made {
		/** -1 to 1; the last `most` of them when there were more. Valid until the next piece. */
		std::span<const float> samples;
		/** How many samples the piece came to, given out or not. */
		uint64_t count = 0;
	};

	/** Starts anew from silence. */
	void reset()
	{
		phase = 0.0;
		last = 0.0f;
	}

	/**
	 * Resamples one piece.
	 * @param ratio output rate / input rate, both whole numbers of Hz below 2^32
	 * @param most samples to give out, which are the last ones; bounds the cost of a piece, whatever the ratio
	 */
	Made resample(const int16_t *pcm, size_t count, double ratio, size_t most);

private:
	uint64_t countOf(size_t count, double ratio) const;
	size_t resampleFew(const int16_t *pcm, size_t count, double ratio);
	void resampleAny(const int16_t *pcm, size_t count, double ratio, uint64_t skipped);

	double phase = 0.0;
	float last = 0.0f;
	/** Only grows. */
	std::vector<float> buffer;
};
