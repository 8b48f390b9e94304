// SPDX-License-Identifier: GPL-2.0-or-later
#pragma once

#include "plain-speech-queue.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <vector>

/** The dub as it is written down: one sample after the other. */
struct PlainDub {
	PlainSpeechQueue speech;
	float ducking = 0.2f;
	float voiceLevel = 1.0f;
	bool mute = false;
	float gain = 1.0f;

	/** Mixes one chunk in place. */
	void mix(std::vector<float> &left, std::vector<float> &right, uint32_t rate)
	{
		const std::vector<float> voice = speech.take(left.size(), rate).samples;
		const float target = mute ? 0.0f : voice.empty() ? 1.0f : ducking;
		const auto hertz = static_cast<float>(rate);
		float step = gain <= target ? (1.0f - ducking) / (hertz * 0.3f) : (1.0f - ducking) / (hertz * 0.15f);
		step = step < 1e-8f ? 1e-8f : step;
		for (size_t i = 0; i < left.size(); ++i) {
			if (gain < target) {
				gain += step;
				gain = gain > target ? target : gain;
			} else if (gain > target) {
				gain -= step;
				gain = gain < target ? target : gain;
			}
			left[i] *= gain;
			right[i] *= gain;
			if (i < voice.size()) {
				const float t = voice[i] * voiceLevel;
				left[i] = std::clamp(left[i] + t, -1.0f, 1.0f);
				right[i] = std::clamp(right[i] + t, -1.0f, 1.0f);
			}
		}
	}
};
