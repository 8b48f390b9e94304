// SPDX-License-Identifier: GPL-2.0-or-later
#pragma once

#include "audio/gain-ramp.h"
#include "audio/speech-queue.h"
#include "obs/public-source.h"

#include <obs.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

/**
 * One language's dub: synthesised speech over the ducked original, published as an OBS audio source.
 *
 * Owned by the plug-in's map of dubbed sources. The original arrives, and the mix leaves, on OBS's audio thread;
 * speech arrives on the user-interface thread.
 */
class DubbedSource {
public:
	/** Called with (language code, clip id) on OBS's audio thread, under the locks: may only post work elsewhere.
	 */
	using ClipCallback = std::function<void(const std::string &, int)>;

	/** Finds the source "Talvora Dub — <displayName>" in OBS or creates it. UTF-8. User-interface thread. */
	DubbedSource(const std::string &language, const std::string &displayName);
	~DubbedSource();

	DubbedSource(const DubbedSource &) = delete;
	DubbedSource &operator=(const DubbedSource &) = delete;

	/**
	 * Mixes one chunk and outputs it. OBS's audio thread; allocates nothing for chunks of up to one second.
	 * @param left,right planar samples; the same pointer twice for mono
	 * @param sampleRate Hz; the speech is resampled to it
	 * @param timestamp OBS's time of the chunk, ns
	 */
	void pushOriginalAudio(const float *left, const float *right, size_t frames, uint32_t sampleRate,
			       uint64_t timestamp);

	/**
	 * Queues speech. User-interface thread.
	 * @param pcm mono signed 16-bit samples
	 * @param sampleRate Hz; 24000 when not positive
	 */
	void pushTtsAudio(int clipId, const int16_t *pcm, size_t count, int sampleRate);

	/** The service has sent all of this clip. */
	void ttsClipEnded(int clipId);

	/** Gain of the original while speech plays, 0 to 1 (clamped; NaN counts as 1). */
	void setDuckingLevel(float level);
	/** Gain of the speech, 0 to 1 (clamped; NaN counts as 1). */
	void setTtsLevel(float level);
	/** Leave the original out altogether. */
	void setMuteOriginal(bool mute);

	/**
	 * Drops all queued speech and puts the original back to full level at once. Of the callbacks only onClipLost is
	 * called, for a clip that has started.
	 */
	void flush();

	/** For how long nothing of the clip that has started has been heard; no value when none has. Any thread. */
	std::optional<std::chrono::nanoseconds> timeSinceHeard();

	/** Whether there is an OBS source to output to: OBS may have removed it. User-interface thread. */
	bool hasSource();

	/**
	 * If OBS has removed the source, finds or creates it again; speech that was queued meanwhile is dropped.
	 * User-interface thread.
	 */
	void restoreSource();

	/** The OBS source's name, as it was found or created; UTF-8. */
	const std::string &name() const { return sourceName; }

	/** Whether this dub outputs to `other`. The type does not matter: an existing source is found by name. */
	bool publishes(const obs_source_t *other);

	/**
	 * Forgets the OBS source without releasing the reference, so that destroying this object leaves it alone
	 * while OBS tears its sources down.
	 */
	void forgetSource();

	ClipCallback onClipStarted;
	ClipCallback onClipEnded;
	/**
	 * A clip that has started was dropped, so onClipEnded will not be called for it. Called by flush(),
	 * pushTtsAudio() and the destructor: on the user-interface thread and without a lock of this object, unlike the
	 * other two.
	 */
	ClipCallback onClipLost;

private:
	friend class DubbedSourceTest;
	friend class AudioCaptureTest;
	friend class DubbedOutputsTest;
	friend class TalvoraPluginTest;

	void tellLostClip(int clipId) const;
	void mix(const float *left, const float *right, size_t frames, size_t voiced, float voiceGain);

	const std::string language;
	const std::string sourceName;
	/** Guards the source, the gain and the buffers; held for the whole of each chunk, so that the source stays.
	 */
	std::mutex sourceLock;
	PublicSource source{sourceLock};
	GainRamp originalGain;
	/** Guards the speech alone, so that handing speech over never waits for what OBS does with a chunk. */
	std::mutex lock;
	SpeechQueue speech;
	/** When speech was last taken for a chunk, by os_gettime_ns(). */
	uint64_t lastHeard = 0;
	std::vector<float> outLeft;
	std::vector<float> outRight;
	std::vector<float> gains;
	std::vector<float> ttsMixBuf;
	std::atomic<float> duckingLevel{0.2f};
	std::atomic<float> ttsLevel{1.0f};
	std::atomic<bool> muteOriginal{false};
	std::atomic<uint32_t> outputSampleRate{48000};
};

/** The source type "talvora_dubbed_source", to be registered with OBS. */
const obs_source_info *dubbed_source_info();
