// SPDX-License-Identifier: GPL-2.0-or-later
#include "audio/dubbed-source.h"

#include "loops/sample-loops.h"
#include "obs/source-name.h"
#include "plugin-support.h"

#include <obs-module.h>
#include <obs.hpp>
#include <util/platform.h>

#include <algorithm>

namespace {

constexpr const char *kSourceTypeId = "talvora_dubbed_source";

/** Frames (one second). Chunks up to this size are mixed without allocating. */
constexpr size_t kUsualFrames = 48000;

obs_source_t *findOrCreate(const char *name)
{
	obs_source_t *source = obs_get_source_by_name(name);
	// obs_get_source_by_name() finds a removed source for as long as anyone holds a reference to it.
	if (source && !obs_source_removed(source)) {
		talvora_log(LOG_INFO, "DubbedSource: reattached to existing '%s'", name);
		return source;
	}
	obs_source_release(source);
	freeSourceName(name);

	obs_data_t *settings = obs_data_create();
	source = obs_source_create(kSourceTypeId, name, settings, nullptr);
	obs_data_release(settings);
	if (source) {
		talvora_log(LOG_INFO, "DubbedSource: created '%s'", name);
	} else {
		talvora_log(LOG_ERROR, "DubbedSource: failed to create OBS source '%s'", name);
	}
	return source;
}

/** Into 0 to 1; NaN counts as 1. */
float clampedLevel(float level)
{
	if (!(level < 1.0f)) {
		return 1.0f;
	}
	return level > 0.0f ? level : 0.0f;
}

} // namespace

DubbedSource::DubbedSource(const std::string &language_, const std::string &displayName)
	: language(language_), sourceName("Talvora Dub \u2014 " + displayName), outLeft(kUsualFrames),
	  outRight(kUsualFrames), gains(kUsualFrames), ttsMixBuf(kUsualFrames)
{
	source.adopt(findOrCreate(sourceName.c_str()));
}

DubbedSource::~DubbedSource()
{
	flush();
	source.release();
	talvora_log(LOG_INFO, "DubbedSource: detached from '%s'", sourceName.c_str());
}

void DubbedSource::pushOriginalAudio(const float *left, const float *right, size_t frames, uint32_t sampleRate,
				     uint64_t timestamp)
{
	const std::lock_guard guard(sourceLock);
	if (!source.get() || frames == 0) {
		return;
	}
	outputSampleRate.store(sampleRate);
	const float ducked = duckingLevel.load();
	const float voiceGain = ttsLevel.load();
	const bool muted = muteOriginal.load();

	if (frames > outLeft.size()) {
		outLeft.resize(frames);
		outRight.resize(frames);
		gains.resize(frames);
		ttsMixBuf.resize(frames);
	}

	const auto started = [this](int clipId) {
		if (onClipStarted) {
			onClipStarted(language, clipId);
		}
	};
	const auto ended = [this](int clipId) {
		if (onClipEnded) {
			onClipEnded(language, clipId);
		}
	};
	size_t voiced;
	{
		const std::lock_guard speechGuard(lock);
		voiced = speech.take(ttsMixBuf.data(), frames, sampleRate, started, ended);
		if (voiced > 0) {
			lastHeard = os_gettime_ns();
		}
	}

	const float unmutedTarget = voiced > 0 ? ducked : 1.0f;
	originalGain.aim(muted ? 0.0f : unmutedTarget, ducked, sampleRate);
	mix(left, right, frames, voiced, voiceGain);

	obs_source_audio audio = {};
	audio.data[0] = reinterpret_cast<const uint8_t *>(outLeft.data());
	audio.data[1] = reinterpret_cast<const uint8_t *>(outRight.data());
	audio.frames = static_cast<uint32_t>(frames);
	audio.speakers = SPEAKERS_STEREO;
	audio.format = AUDIO_FORMAT_FLOAT_PLANAR;
	audio.samples_per_sec = sampleRate;
	audio.timestamp = timestamp;
	obs_source_output_audio(source.get(), &audio);
}

/** The original at its gain, and over its first `voiced` frames the speech, on both channels. */
void DubbedSource::mix(const float *left, const float *right, size_t frames, size_t voiced, float voiceGain)
{
	originalGain.fill(gains.data(), frames);
	sample_loops::mixVoice(left, right, gains.data(), ttsMixBuf.data(), voiceGain, voiced, outLeft.data(),
			       outRight.data());
	const size_t unvoiced = frames - voiced;
	sample_loops::applyGains(left + voiced, gains.data() + voiced, unvoiced, outLeft.data() + voiced);
	sample_loops::applyGains(right + voiced, gains.data() + voiced, unvoiced, outRight.data() + voiced);
}

void DubbedSource::pushTtsAudio(int clipId, const int16_t *pcm, size_t count, int sampleRate)
{
	// Outside the lock: resampling a long piece takes longer than the audio thread may wait.
	const SpeechResampler::Made made = speech.resample(pcm, count, sampleRate, outputSampleRate.load());
	int lost;
	{
		const std::lock_guard guard(lock);
		const int started = speech.startedClip();
		speech.append(clipId, made);
		// Speech beyond the bound pushes out the oldest, which belongs to the clip being played.
		lost = speech.startedClip() == started ? 0 : started;
	}
	tellLostClip(lost);
}

void DubbedSource::ttsClipEnded(int clipId)
{
	const std::lock_guard guard(lock);
	speech.endClip(clipId);
}

void DubbedSource::setDuckingLevel(float level)
{
	duckingLevel.store(clampedLevel(level));
}

void DubbedSource::setTtsLevel(float level)
{
	ttsLevel.store(clampedLevel(level));
}

void DubbedSource::setMuteOriginal(bool mute)
{
	muteOriginal.store(mute);
}

void DubbedSource::flush()
{
	int lost;
	{
		const std::lock_guard guard(lock);
		lost = speech.startedClip();
		speech.clear();
	}
	{
		const std::lock_guard guard(sourceLock);
		originalGain.reset();
	}
	tellLostClip(lost);
}

void DubbedSource::tellLostClip(int clipId) const
{
	if (clipId != 0 && onClipLost) {
		onClipLost(language, clipId);
	}
}

std::optional<std::chrono::nanoseconds> DubbedSource::timeSinceHeard()
{
	const std::lock_guard guard(lock);
	if (speech.startedClip() == 0) {
		return std::nullopt;
	}
	return std::chrono::nanoseconds(os_gettime_ns() - lastHeard);
}

bool DubbedSource::hasSource()
{
	const OBSSourceAutoRelease present = source.getRef();
	return present;
}

void DubbedSource::restoreSource()
{
	if (!hasSource()) {
		flush();
		source.adopt(findOrCreate(sourceName.c_str()));
	}
}

bool DubbedSource::publishes(const obs_source_t *other)
{
	const std::lock_guard guard(sourceLock);
	return other && source.get() == other;
}

void DubbedSource::forgetSource()
{
	source.forget();
}

namespace {

const char *get_type_name(void *)
{
	return obs_module_text("DubbedSource.TypeName");
}

/** OBS wants some data for each source. This one needs none: its DubbedSource outputs audio to it from outside. */
void *create_instance(obs_data_t *, obs_source_t *)
{
	return nullptr;
}

void destroy_instance(void *) {}

obs_properties_t *get_properties(void *)
{
	obs_properties_t *properties = obs_properties_create();
	obs_properties_add_text(properties, "info", obs_module_text("DubbedSource.InfoText"), OBS_TEXT_INFO);
	return properties;
}

} // namespace

const obs_source_info *dubbed_source_info()
{
	static const obs_source_info info = [] {
		obs_source_info type = {};
		type.id = kSourceTypeId;
		type.type = OBS_SOURCE_TYPE_INPUT;
		type.output_flags = OBS_SOURCE_AUDIO | OBS_SOURCE_DO_NOT_DUPLICATE | OBS_SOURCE_DO_NOT_SELF_MONITOR;
		type.icon_type = OBS_ICON_TYPE_AUDIO_OUTPUT;
		type.get_name = get_type_name;
		type.create = create_instance;
		type.destroy = destroy_instance;
		type.get_properties = get_properties;
		return type;
	}();
	return &info;
}
