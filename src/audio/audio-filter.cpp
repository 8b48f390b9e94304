// SPDX-License-Identifier: GPL-2.0-or-later
#include "audio/audio-filter.h"

#include "plugin-support.h"

#include <obs-module.h>

#include <cstdint>
#include <memory>

namespace {

struct AudioFilter {
	obs_source_t *source = nullptr;
	/** Hz */
	uint32_t sampleRate = 48000;
	uint32_t channels = 2;
	uint64_t reserved[2] = {};
};

const char *get_name(void *)
{
	return obs_module_text("AudioCaptureFilter.Name");
}

void *create(obs_data_t *, obs_source_t *source)
{
	auto filter = std::make_unique<AudioFilter>();
	filter->source = source;
	obs_audio_info output = {};
	if (obs_get_audio_info(&output)) {
		filter->sampleRate = output.samples_per_sec;
	}
	talvora_log(LOG_INFO, "Talvora audio capture filter created (rate=%u)", filter->sampleRate);
	return filter.release();
}

void destroy(void *data)
{
	delete static_cast<AudioFilter *>(data);
}

obs_properties_t *get_properties(void *)
{
	return obs_properties_create();
}

obs_audio_data *filter_audio(void *, obs_audio_data *audio)
{
	return audio;
}

} // namespace

const obs_source_info *audio_capture_filter_info()
{
	static const obs_source_info info = [] {
		obs_source_info type = {};
		type.id = "talvora_audio_capture";
		type.type = OBS_SOURCE_TYPE_FILTER;
		type.output_flags = OBS_SOURCE_AUDIO;
		type.get_name = get_name;
		type.create = create;
		type.destroy = destroy;
		type.get_properties = get_properties;
		type.filter_audio = filter_audio;
		return type;
	}();
	return &info;
}
