// SPDX-License-Identifier: GPL-2.0-or-later
// Logs moments of CLOCK_MONOTONIC, in ns:
//   "click NS": the source "talvora_stopwatch" is handing a chunk to OBS that begins with a click
//   "caption NS": the settings of a caption source have a new text, as seen every half millisecond
//   "voice NS": a dubbed source has put out a chunk with sound louder than clicks, after one without
#include <obs-module.h>
#include <obs.hpp>
#include <util/platform.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

OBS_DECLARE_MODULE()

namespace {

constexpr uint32_t kRate = 48000;
constexpr size_t kFrames = 1024;
/** Chunks from click to click: no whole number of the client's ticks, so that every phase of them comes up. */
constexpr int kChunksPerClick = 23;
constexpr size_t kClickFrames = 48;
constexpr float kClickLevel = 0.25f;
constexpr float kVoiceLevel = 0.5f;

void logMoment(const char *what, uint64_t moment)
{
	blog(LOG_INFO, "[talvora-stopwatch] %s %llu", what, static_cast<unsigned long long>(moment));
}

/** Plays silence with clicks, chunk by chunk in real time. */
class ClickSource {
public:
	explicit ClickSource(obs_source_t *source_) : source(source_), thread([this] { play(); }) {}

	~ClickSource()
	{
		ending = true;
		thread.join();
	}

	ClickSource(const ClickSource &) = delete;
	ClickSource &operator=(const ClickSource &) = delete;

private:
	void play()
	{
		const std::vector<float> silence(kFrames);
		std::vector<float> click(kFrames);
		std::fill_n(click.begin(), kClickFrames, kClickLevel);
		auto due = std::chrono::steady_clock::now();
		for (int chunk = 1; !ending; ++chunk) {
			due += std::chrono::nanoseconds(1000000000ULL * kFrames / kRate);
			std::this_thread::sleep_until(due);
			const bool clicks = chunk % kChunksPerClick == 0;
			const auto *plane = reinterpret_cast<const uint8_t *>((clicks ? click : silence).data());
			obs_source_audio audio = {};
			audio.data[0] = plane;
			audio.data[1] = plane;
			audio.frames = kFrames;
			audio.speakers = SPEAKERS_STEREO;
			audio.format = AUDIO_FORMAT_FLOAT_PLANAR;
			audio.samples_per_sec = kRate;
			audio.timestamp = static_cast<uint64_t>(due.time_since_epoch().count());
			const uint64_t now = os_gettime_ns();
			obs_source_output_audio(source, &audio);
			if (clicks) {
				logMoment("click", now);
			}
		}
	}

	obs_source_t *source;
	std::atomic<bool> ending{false};
	std::thread thread;
};

/** OBS says nothing when settings change: a browser source takes them with the next frame. */
class CaptionWatch {
public:
	CaptionWatch() : thread([this] { watch(); }) {}

	~CaptionWatch()
	{
		ending = true;
		thread.join();
	}

	CaptionWatch(const CaptionWatch &) = delete;
	CaptionWatch &operator=(const CaptionWatch &) = delete;

private:
	void watch()
	{
		std::map<std::string, std::string> shown;
		for (const char *language : {"Dutch", "French", "German", "Italian", "Portuguese"}) {
			shown[std::string("Talvora Captions \u2014 ") + language];
		}
		while (!ending) {
			std::this_thread::sleep_for(std::chrono::microseconds(500));
			for (auto &[name, last] : shown) {
				const OBSSourceAutoRelease source = obs_get_source_by_name(name.c_str());
				const OBSDataAutoRelease settings = obs_source_get_settings(source);
				const std::string css = obs_data_get_string(settings, "css");
				if (css != last && css.find("content:") != std::string::npos) {
					logMoment("caption", os_gettime_ns());
				}
				last = css;
			}
		}
	}

	std::atomic<bool> ending{false};
	std::thread thread;
};

std::unique_ptr<CaptionWatch> captionWatch;

void onDubAudio(void *, obs_source_t *, const audio_data *audio, bool)
{
	static bool wasSpeaking = false;
	const auto *samples = reinterpret_cast<const float *>(audio->data[0]);
	const bool speaks = std::any_of(samples, samples + audio->frames,
					[](float sample) { return std::fabs(sample) > kVoiceLevel; });
	if (speaks && !wasSpeaking) {
		logMoment("voice", os_gettime_ns());
	}
	wasSpeaking = speaks;
}

void onSourceCreated(void *, calldata_t *data)
{
	auto *source = static_cast<obs_source_t *>(calldata_ptr(data, "source"));
	if (std::strcmp(obs_source_get_id(source), "talvora_dubbed_source") == 0) {
		obs_source_add_audio_capture_callback(source, onDubAudio, nullptr);
	}
}

} // namespace

bool obs_module_load(void)
{
	obs_source_info type = {};
	type.id = "talvora_stopwatch";
	type.type = OBS_SOURCE_TYPE_INPUT;
	type.output_flags = OBS_SOURCE_AUDIO;
	type.get_name = [](void *) { return "Stopwatch"; };
	type.create = [](obs_data_t *, obs_source_t *source) -> void * { return new ClickSource(source); };
	type.destroy = [](void *data) { delete static_cast<ClickSource *>(data); };
	obs_register_source(&type);
	signal_handler_connect(obs_get_signal_handler(), "source_create", onSourceCreated, nullptr);
	captionWatch = std::make_unique<CaptionWatch>();
	return true;
}

void obs_module_unload(void)
{
	captionWatch.reset();
	signal_handler_disconnect(obs_get_signal_handler(), "source_create", onSourceCreated, nullptr);
}
