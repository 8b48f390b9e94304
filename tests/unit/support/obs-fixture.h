// SPDX-License-Identifier: GPL-2.0-or-later
#pragma once

#include <cstdint>

/** A libobs without a display: sources and 48 kHz stereo audio. Its end is fatal when something of OBS's was leaked. */
class ObsFixture {
public:
	explicit ObsFixture(uint32_t samplesPerSec = 48000);
	~ObsFixture();

	/** Until OBS's own thread has destroyed what has lost its last reference. */
	static void waitForDestroyedSources();
	/** Waits until no source has this name. OBS's audio thread holds every audio source for moments, removed or
	 * not. */
	static bool isGone(const char *name);

	ObsFixture(const ObsFixture &) = delete;
	ObsFixture &operator=(const ObsFixture &) = delete;

private:
	/** Allocations of OBS's that were there before. */
	long allocationsBefore;
};
