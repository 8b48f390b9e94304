// SPDX-License-Identifier: GPL-2.0-or-later
#pragma once

#include <obs.h>

#include <vector>

/** Samples a dubbed source has put out, left channel. */
struct Heard {
	explicit Heard(const char *name) : source(obs_get_source_by_name(name))
	{
		obs_source_add_audio_capture_callback(source, hear, this);
	}
	~Heard()
	{
		obs_source_remove_audio_capture_callback(source, hear, this);
		obs_source_release(source);
	}
	static void hear(void *self, obs_source_t *, const audio_data *audio, bool)
	{
		const auto *left = reinterpret_cast<const float *>(audio->data[0]);
		auto &samples = static_cast<Heard *>(self)->samples;
		samples.insert(samples.end(), left, left + audio->frames);
	}

	obs_source_t *source;
	std::vector<float> samples;
};
