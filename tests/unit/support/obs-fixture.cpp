// SPDX-License-Identifier: GPL-2.0-or-later
#include "obs-fixture.h"

#include <QTest>

#include <obs.hpp>
#include <util/bmem.h>

ObsFixture::ObsFixture(uint32_t samplesPerSec) : allocationsBefore(bnum_allocs())
{
	if (!obs_startup("en-US", nullptr, nullptr)) {
		qFatal("libobs did not start");
	}
	obs_audio_info audio{};
	audio.samples_per_sec = samplesPerSec;
	audio.speakers = SPEAKERS_STEREO;
	if (!obs_reset_audio(&audio)) {
		qFatal("libobs did not start its audio");
	}
}

ObsFixture::~ObsFixture()
{
	// As OBS's own exit does: libobs frees what it shares, the hotkeys among it, without waiting for its thread
	// that is still destroying sources.
	waitForDestroyedSources();
	obs_shutdown();
	const long leaked = bnum_allocs() - allocationsBefore;
	if (leaked != 0) {
		qFatal("%ld allocations of OBS's were leaked", leaked);
	}
}

void ObsFixture::waitForDestroyedSources()
{
	obs_queue_task(OBS_TASK_DESTROY, [](void *) {}, nullptr, true);
}

bool ObsFixture::isGone(const char *name)
{
	return QTest::qWaitFor([name] { return !OBSSourceAutoRelease(obs_get_source_by_name(name)); });
}
