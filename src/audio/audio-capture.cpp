// SPDX-License-Identifier: GPL-2.0-or-later
#include "audio/audio-capture.h"

#include "audio/dubbed-outputs.h"
#include "client/client-thread.h"
#include "obs/browser-source.h"
#include "plugin-support.h"
#include "settings/settings.h"

#include <obs.hpp>

#include <cstring>
#include <span>
#include <utility>

namespace {

constexpr uint32_t kExpectedSampleRate = 48000;

bool isCapturable(const obs_source_t *source)
{
	const char *id = obs_source_get_id(source);
	// A browser source sets OBS_SOURCE_AUDIO but calls no capture callback. A source of the dubs' type may become
	// one of our outputs at any time.
	return (obs_source_get_output_flags(source) & OBS_SOURCE_AUDIO) != 0 && strcmp(id, kBrowserSourceId) != 0 &&
	       strcmp(id, dubbed_source_info()->id) != 0;
}

} // namespace

AudioCapture::AudioCapture(const Settings &chosen, DubbedOutputs &outputs, ClientThread &service)
	: settings(chosen), dubs(outputs), client(service)
{
}

void AudioCapture::attach()
{
	detach();
	if (settings.audioSource.isEmpty()) {
		return;
	}

	const QByteArray name = settings.audioSource.toUtf8();
	const OBSSourceAutoRelease source = obs_get_source_by_name(name);
	if (!source || obs_source_removed(source)) {
		talvora_log(LOG_WARNING, "Talvora: audio source '%s' not found", name.constData());
		return;
	}
	// Dubs output from within the capture callback: if one were captured, its output would wait for a mutex that
	// OBS holds during the callback.
	if (dubs.publishes(source) || !isCapturable(source)) {
		talvora_log(LOG_WARNING, "Talvora: source '%s' (type=%s) does not produce capturable audio, skipping",
			    name.constData(), obs_source_get_id(source));
		return;
	}

	// The previous source may be in the middle of the callback while OBS destroys it, when the callback can no
	// longer be removed. This waits until the callback has returned.
	dubs.setFeed(source, [this] {
		captureConverter.reset();
		captureSampleRate = kExpectedSampleRate;
		captureChannels = 2;
		obs_audio_info info;
		if (obs_get_audio_info(&info)) {
			captureSampleRate = info.samples_per_sec;
		}
	});
	obs_source_add_audio_capture_callback(source, audioCaptureCallback, this);
	audioSourceRef = obs_source_get_weak_source(source);
	attachedName = name;
	talvora_log(LOG_INFO, "Talvora: attached audio capture to source '%s'", name.constData());
}

void AudioCapture::detach()
{
	if (!audioSourceRef) {
		return;
	}
	const OBSSourceAutoRelease source = obs_weak_source_get_source(audioSourceRef);
	dubs.clearFeed();
	if (source) {
		obs_source_remove_audio_capture_callback(source, audioCaptureCallback, this);
		talvora_log(LOG_INFO, "Talvora: detached audio capture from '%s'", obs_source_get_name(source));
	} else {
		talvora_log(LOG_INFO, "Talvora: audio source '%s' was already destroyed, skipping detach",
			    attachedName.constData());
	}
	obs_weak_source_release(std::exchange(audioSourceRef, nullptr));
}

bool AudioCapture::isCapturing() const
{
	const OBSSourceAutoRelease source = obs_weak_source_get_source(audioSourceRef);
	return source && !obs_source_removed(source) &&
	       settings.audioSource == QString::fromUtf8(obs_source_get_name(source));
}

void AudioCapture::restore()
{
	if (!settings.audioSource.isEmpty() && !isCapturing()) {
		attach();
	}
}

void AudioCapture::recheck()
{
	if (audioSourceRef && !dubs.hasFeed()) {
		attach();
	}
}

void AudioCapture::forgetLostSource()
{
	if (audioSourceRef && !isCapturing()) {
		detach();
	}
}

void AudioCapture::audioCaptureCallback(void *param, obs_source_t *source, const audio_data *audio, bool muted)
{
	auto *capture = static_cast<AudioCapture *>(param);
	if (capture->shuttingDown || !audio || audio->frames == 0 || muted || !audio->data[0]) {
		return;
	}
	capture->captureChunk(source, *audio);
}

void AudioCapture::captureChunk(obs_source_t *source, const audio_data &audio)
{
	const DubbedOutputs::Chunk chunk = dubs.beginChunk(source);
	if (shuttingDown || !chunk) {
		return;
	}

	const auto *left = reinterpret_cast<const float *>(audio.data[0]);
	const auto *right = audio.data[1] ? reinterpret_cast<const float *>(audio.data[1]) : left;
	captureChannels.store(audio.data[1] ? 2 : 1, std::memory_order_relaxed);

	const uint32_t rate = captureSampleRate.load(std::memory_order_relaxed);

	if (rate != kExpectedSampleRate) {
		static std::atomic_flag warned;
		if (!warned.test_and_set(std::memory_order_relaxed)) {
			talvora_log(LOG_WARNING,
				    "Talvora: audio sample rate is %u Hz (expected 48000). Downsampling will produce "
				    "incorrect output. Change OBS audio settings to 48 kHz.",
				    rate);
		}
		chunk.push(left, right, audio.frames, rate, audio.timestamp);
		return;
	}

	const std::span<const int16_t> speech = captureConverter.convert(left, right, audio.frames);
	chunk.push(left, right, audio.frames, rate, audio.timestamp);
	if (!speech.empty()) {
		client.enqueueAudio(speech.data(), speech.size());
	}
}
