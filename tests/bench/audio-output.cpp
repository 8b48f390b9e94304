// SPDX-License-Identifier: GPL-2.0-or-later
#include "audio-output.h"

#include "timing.h"

#include <obs.h>

#include <dlfcn.h>

namespace {

bool muted = false;

} // namespace

AudioOutput::Mute::Mute()
{
	muted = true;
}

AudioOutput::Mute::~Mute()
{
	muted = false;
}

extern "C" __attribute__((visibility("default"))) void obs_source_output_audio(obs_source_t *source,
									       const obs_source_audio *audio)
{
	static auto *const original =
		reinterpret_cast<decltype(&obs_source_output_audio)>(dlsym(RTLD_NEXT, "obs_source_output_audio"));
	if (muted) {
		touched(audio);
	} else {
		original(source, audio);
	}
}
