// SPDX-License-Identifier: GPL-2.0-or-later
#pragma once

#include <cstddef>
#include <cstdint>

/**
 * The loops in which the time goes: plain arithmetic over arrays, written so that the compiler makes vector code of
 * it, for the machine's own instructions where it can. For any thread; nothing is allocated. Outputs overlap no input.
 */
namespace sample_loops {

/** @return -1 to just below 1 */
inline float toFloat(int16_t sample)
{
	return static_cast<float>(sample) / 32768.0f;
}

/** Averages two channels, which may be the same. */
void downmix(const float *left, const float *right, size_t frames, float *mono);

/**
 * Averages groups of three samples and makes 16-bit ones of them: full scale, and NaN, is 32767.
 * @param count groups; samples made
 */
void decimateAndQuantise(const float *mono, size_t count, int16_t *out);

/** `out[i] = in[i] * gain[i]` */
void applyGains(const float *in, const float *gains, size_t count, float *out);

/** Both channels, which may be the same, at their gains, the voice at its own over them; kept within -1 to 1. */
void mixVoice(const float *left, const float *right, const float *gains, const float *voice, float voiceGain,
	      size_t count, float *outLeft, float *outRight);

/** `out[k] = from + (k + 1) * step`. @param count less than 2^31 */
void line(float from, float step, size_t count, float *out);

/** A phase of 1: its unit is the finest step of doubles from 2 to 4. */
constexpr double kWholePhase = 0x1p51;
/** stretch() is for ratios below this. */
constexpr double kStretchRatio = 3.0;
constexpr size_t kStretchRoom = 4;

/**
 * Moves the phase on by `perSample` with every input sample; for each whole phase in it, one output sample is made on
 * the straight line from the previous input sample. Since the phase is an integer, the phase of each sample can be
 * computed without that of the previous one.
 * @param before the sample before the first one, -1 to 1
 * @param position phase, below 1; changed
 * @param perSample ratio of the rates, in units of the phase
 * @param out room for `(count + 1) * kStretchRoom` samples
 * @return samples made
 */
size_t stretch(float before, const int16_t *pcm, size_t count, uint64_t &position, uint64_t perSample, float *out);

/**
 * Sets `marks[i]` to 1 where a byte of 2 to 10 is followed by two letters or "-", else to 0.
 * Two bytes more than `count` are read.
 */
void markTags(const unsigned char *bytes, size_t count, unsigned char *marks);

} // namespace sample_loops
