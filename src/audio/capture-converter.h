// SPDX-License-Identifier: GPL-2.0-or-later
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

/**
 * Turns captured audio into what the service hears: stereo float at 48000 Hz in, mono signed 16-bit at 16000 Hz out.
 *
 * Stereo is averaged, every three samples are averaged into one (a box filter, nothing else), and full scale becomes
 * plus or minus 32767. The one or two samples that do not fill a group of three wait for the next chunk.
 *
 * Allocates nothing. One thread at a time: the audio thread, except reset() while nothing is being captured.
 */
class CaptureConverter {
public:
	/** Frames of one chunk that are converted; what a chunk has beyond them is left out. */
	static constexpr size_t kMaxFrames = 8192;
	/** Input samples that make one output sample. */
	static constexpr size_t kDecimation = 3;
	/** Room for the output of one chunk, in samples; the largest chunk with a full carry makes 2731. */
	static constexpr size_t kMaxOutput = 2736;

	/** Forgets the samples that wait for the next chunk. */
	void reset();

	/**
	 * Converts one chunk.
	 * @param left,right planar samples at 48000 Hz; the same pointer twice for mono
	 * @return (waiting + min(frames, kMaxFrames)) / 3 samples at 16000 Hz, possibly none; valid until the next call
	 */
	std::span<const int16_t> convert(const float *left, const float *right, size_t frames);

	/** Samples that wait for the next chunk: 0, 1 or 2. */
	size_t carried() const { return carryCount; }

private:
	/** A long chunk goes through in pieces, so that what is made of one is still in the fastest cache. */
	static constexpr size_t kBlockFrames = 1024;

	size_t convertBlock(const float *left, const float *right, size_t frames, int16_t *out);

	std::array<float, kDecimation - 1> carry{};
	size_t carryCount = 0;
	std::array<float, kBlockFrames + kDecimation - 1> mono;
	std::array<int16_t, kMaxOutput> quantised;
};
