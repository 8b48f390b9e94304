// SPDX-License-Identifier: GPL-2.0-or-later
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>

/**
 * The gain of the original: moves in a straight line, sample by sample, and never jumps within a chunk.
 *
 * The whole way between full level and the ducking level takes 150 ms down and 300 ms up. One thread at a time.
 */
class GainRamp {
public:
	/** Seconds for the whole way up and for the whole way down. */
	static constexpr float kRiseSeconds = 0.3f;
	static constexpr float kFallSeconds = 0.15f;
	/** The gain's smallest step per sample. */
	static constexpr float kMinStep = 1e-8f;

	/** Back to full level at once. */
	void reset() { gain = 1.0f; }

	/** The gain of the last sample. */
	float value() const { return gain; }

	/**
	 * Sets where the next chunk is going.
	 *
	 * The pace follows the ducking level even when the target is silence, so that muting and ducking move alike.
	 * @param newTarget,duckingLevel 0 to 1
	 * @param sampleRate Hz
	 */
	void aim(float newTarget, float duckingLevel, uint32_t sampleRate)
	{
		const float seconds = gain <= newTarget ? kRiseSeconds : kFallSeconds;
		const float pace = (1.0f - duckingLevel) / (static_cast<float>(sampleRate) * seconds);
		target = newTarget;
		// The comparison also turns the undefined pace of a rate of 0 into the smallest.
		step = pace > kMinStep ? pace : kMinStep;
	}

	/** Moves on by one sample and returns its gain. */
	float next()
	{
		gain = gain < target ? std::min(gain + step, target) : std::max(gain - step, target);
		return gain;
	}

	/** Moves on by `count` samples and writes the gain of each: the same values as from next(), faster. */
	void fill(float *out, size_t count);

private:
	size_t stepsInStride(float stride, size_t most) const;

	float gain = 1.0f;
	float target = 1.0f;
	float step = kMinStep;
};
