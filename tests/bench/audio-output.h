// SPDX-License-Identifier: GPL-2.0-or-later
#pragma once

/** Stands before OBS's obs_source_output_audio(). */
namespace AudioOutput {

/** While it lives, nothing is handed on to OBS. One at a time, on the thread that outputs. */
class Mute {
public:
	Mute();
	~Mute();

	Mute(const Mute &) = delete;
	Mute &operator=(const Mute &) = delete;
};

} // namespace AudioOutput
