// SPDX-License-Identifier: GPL-2.0-or-later
#pragma once

#include <obs.h>

/** The filter type "talvora_audio_capture": passes audio through unchanged. To be registered with OBS. */
const obs_source_info *audio_capture_filter_info();
