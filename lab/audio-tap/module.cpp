// SPDX-License-Identifier: GPL-2.0-or-later
// Taps the sources that the environment names: whatever OBS hands to those who capture their audio is written down,
// before any mixer or encoder.
#include "record-writer.h"

#include <obs-module.h>
#include <obs.hpp>
#include <util/platform.h>

#include <algorithm>
#include <cstdlib>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <sys/syscall.h>
#include <unistd.h>
#include <utility>
#include <vector>

OBS_DECLARE_MODULE()

namespace {

/// A source that is tapped, or was: its callback may still run while OBS destroys it, so it stays until the end.
struct Tap {
	uint32_t source;
	uint32_t life;
	/// A strong one would keep OBS from clearing its sources.
	OBSWeakSourceAutoRelease reference;
};

std::vector<std::string> wanted;
std::unique_ptr<RecordWriter> writer;
/// Guards `taps`: sources are made on any thread.
std::mutex tapsMutex;
std::deque<Tap> taps;

void onAudio(void *param, obs_source_t *, const audio_data *audio, bool muted)
{
	const auto *tap = static_cast<const Tap *>(param);
	RecordHeader header = {};
	header.source = tap->source;
	header.life = tap->life;
	header.timestamp = audio->timestamp;
	header.arrival = os_gettime_ns();
	header.thread = static_cast<uint32_t>(syscall(SYS_gettid));
	header.frames = audio->frames;
	header.muted = muted ? 1 : 0;
	const size_t most = std::min<size_t>(audio_output_get_channels(obs_get_audio()), MAX_AV_PLANES);
	while (header.channels < most && audio->data[header.channels]) {
		++header.channels;
	}
	writer->put(header, audio->data);
}

void onSourceCreate(void *, calldata_t *data)
{
	auto *source = static_cast<obs_source_t *>(calldata_ptr(data, "source"));
	const auto found = std::ranges::find(wanted, std::string(obs_source_get_name(source)));
	if (found == wanted.end()) {
		return;
	}
	Tap *tap;
	{
		const std::lock_guard guard(tapsMutex);
		const auto life = static_cast<uint32_t>(taps.size() + 1);
		tap = &taps.emplace_back(static_cast<uint32_t>(found - wanted.begin()), life,
					 obs_source_get_weak_source(source));
	}
	obs_source_add_audio_capture_callback(source, onAudio, tap);
}

std::vector<std::string> lines(const char *text)
{
	std::vector<std::string> found(1);
	for (; *text; ++text) {
		if (*text == '\n') {
			found.emplace_back();
		} else {
			found.back() += *text;
		}
	}
	return found;
}

} // namespace

MODULE_EXPORT const char *obs_module_name(void)
{
	return "Talvora lab tap";
}

MODULE_EXPORT const char *obs_module_description(void)
{
	return "Writes down the audio of sources as it is captured";
}

bool obs_module_load(void)
{
	const char *folder = getenv("TALVORA_LAB_TAP");
	const char *names = getenv("TALVORA_LAB_TAP_SOURCES");
	if (!folder || !names) {
		blog(LOG_ERROR, "[talvora-lab-tap] TALVORA_LAB_TAP or TALVORA_LAB_TAP_SOURCES is missing");
		return false;
	}
	wanted = lines(names);
	writer = std::make_unique<RecordWriter>(folder);
	// OBS makes its sources after it has loaded its modules.
	signal_handler_connect(obs_get_signal_handler(), "source_create", onSourceCreate, nullptr);
	return true;
}

void obs_module_unload(void)
{
	if (!writer) {
		return;
	}
	signal_handler_disconnect(obs_get_signal_handler(), "source_create", onSourceCreate, nullptr);
	for (Tap &tap : taps) {
		const OBSSourceAutoRelease source = obs_weak_source_get_source(tap.reference);
		if (source) {
			// Waits for a callback that is running.
			obs_source_remove_audio_capture_callback(source, onAudio, &tap);
		}
	}
	taps.clear();
	writer.reset();
}
