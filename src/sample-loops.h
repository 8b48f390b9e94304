// SPDX-License-Identifier: GPL-2.0-or-later
#pragma once

#include <cstddef>
#include <cstdint>

/**
 * The loops in which the time goes: plain arithmetic over arrays, written so that the compiler makes vector code of
 * it, for the machine's own instructions where it can. For any thread; nothing is allocated. Outputs overlap no input.
 */
namespace sample_loops {

/** Averages two channels, which may be the same. */
void downmix(const float *left, const float *right, size_t frames, float *mono);

/**
 * Averages groups of three samples and makes 16-bit ones of them: full scale, and NaN, is 32767.
 * @param count groups; samples made
 */
void decimateAndQuantise(const float *mono, size_t count, int16_t *out);

/** `out[i] = in[i] * gain[i]` */
void applyGains(const float *in, const float *gains, size_t count, float *out);

/** Adds the voice at its gain, and keeps the sum within -1 to 1. */
void addVoice(const float *voice, float voiceGain, size_t count, float *samples);

/** `out[k] = from + (k + 1) * step`. @param count less than 2^31 */
void line(float from, float step, size_t count, float *out);

/**
 * Whether a byte of 2 to 10 that is followed by two letters or "-" is among `bytes[0]` to `bytes[count - 1]`.
 * Two bytes more are read.
 */
bool mayHoldTag(const unsigned char *bytes, size_t count);

} // namespace sample_loops
