// SPDX-License-Identifier: GPL-2.0-or-later
#pragma once

#include <obs.h>

#include <cstdint>
#include <vector>

/** A public OBS source whose audio the test pushes itself, chunk by chunk, on its own thread. */
class TestAudioSource {
public:
	/** @param id "test_audio", or another id of a type with audio; each is registered on first use */
	explicit TestAudioSource(const char *name, const char *id = "test_audio",
				 uint32_t outputFlags = OBS_SOURCE_AUDIO);
	/** Removes the source from OBS. */
	~TestAudioSource();

	TestAudioSource(const TestAudioSource &) = delete;
	TestAudioSource &operator=(const TestAudioSource &) = delete;

	/** Plays one stereo chunk. Capture callbacks run inside this call. */
	void play(const std::vector<float> &left, const std::vector<float> &right, uint32_t rate = 48000);
	/** Plays `frames` frames of one value on both channels. */
	void playConstant(float value, uint32_t frames, uint32_t rate = 48000);

	obs_source_t *get() const { return source; }

private:
	obs_source_t *source;
	uint64_t timestamp = 1000000000;
};
