// SPDX-License-Identifier: GPL-2.0-or-later
#include "test-audio-source.h"

#include <QtGlobal>

TestAudioSource::TestAudioSource(const char *name, const char *id, uint32_t outputFlags)
{
	if (!obs_source_get_display_name(id)) {
		obs_source_info info{};
		info.id = id;
		info.type = OBS_SOURCE_TYPE_INPUT;
		info.output_flags = outputFlags;
		info.get_name = [](void *) { return "Test audio"; };
		info.create = [](obs_data_t *, obs_source_t *created) -> void * { return created; };
		info.destroy = [](void *) {};
		// OBS takes no type that says it has video without these.
		info.get_width = [](void *) -> uint32_t { return 1; };
		info.get_height = [](void *) -> uint32_t { return 1; };
		info.video_render = [](void *, gs_effect_t *) {};
		obs_register_source(&info);
	}
	source = obs_source_create(id, name, nullptr, nullptr);
	if ((obs_source_get_output_flags(source) & outputFlags) != outputFlags) {
		qFatal("OBS does not know the type %s", id);
	}
}

TestAudioSource::~TestAudioSource()
{
	obs_source_remove(source);
	obs_source_release(source);
}

void TestAudioSource::play(const std::vector<float> &left, const std::vector<float> &right, uint32_t rate)
{
	obs_source_audio audio{};
	audio.data[0] = reinterpret_cast<const uint8_t *>(left.data());
	audio.data[1] = reinterpret_cast<const uint8_t *>(right.data());
	audio.frames = static_cast<uint32_t>(left.size());
	audio.speakers = SPEAKERS_STEREO;
	audio.format = AUDIO_FORMAT_FLOAT_PLANAR;
	audio.samples_per_sec = rate;
	audio.timestamp = timestamp;
	timestamp += left.size() * 1000000000ULL / rate;
	obs_source_output_audio(source, &audio);
}

void TestAudioSource::playConstant(float value, uint32_t frames, uint32_t rate)
{
	const std::vector<float> plane(frames, value);
	play(plane, plane, rate);
}
