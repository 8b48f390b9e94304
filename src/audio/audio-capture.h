// SPDX-License-Identifier: GPL-2.0-or-later
#pragma once

#include "audio/capture-converter.h"

#include <QByteArray>

#include <obs.h>

#include <atomic>
#include <cstdint>

class ClientThread;
class DubbedOutputs;
struct Settings;

/**
 * The source whose audio is translated: attaches to it, gives its chunks to the dubs, and converts them for the
 * service.
 *
 * User-interface thread, except the capture callback, which OBS calls on an audio thread.
 */
class AudioCapture {
public:
	/** @param chosen names the source; all three must outlive this object */
	AudioCapture(const Settings &chosen, DubbedOutputs &outputs, ClientThread &service);
	~AudioCapture() { detach(); }

	AudioCapture(const AudioCapture &) = delete;
	AudioCapture &operator=(const AudioCapture &) = delete;

	/** Captures the source that the settings name, in place of the one captured so far. */
	void attach();
	/** Stops capturing, if anything is captured. */
	void detach();
	/** Attaches, if a source is chosen and not being captured. */
	void restore();
	/** Attaches anew, or not at all, if a dub has come to output to the captured source. */
	void recheck();
	/** Detaches, if the captured source has been removed or is no longer the chosen one. */
	void forgetLostSource();

	/** While true, chunks are ignored: the program ends. Waits for nothing. */
	void setShuttingDown(bool ends) { shuttingDown = ends; }

private:
	friend class AudioCaptureTest;
	friend class TalvoraPluginTest;

	/**
	 * One chunk of the captured source; `param` is the AudioCapture. OBS's audio thread; never blocks for long, and
	 * allocates nothing but the event that tells the user-interface thread of a clip's start or end.
	 */
	static void audioCaptureCallback(void *param, obs_source_t *source, const audio_data *audio, bool muted);
	void captureChunk(obs_source_t *source, const audio_data &audio);
	/** Whether the source that the settings name is being captured. */
	bool isCapturing() const;

	const Settings &settings;
	DubbedOutputs &dubs;
	ClientThread &client;

	std::atomic<uint32_t> captureSampleRate{48000};
	std::atomic<uint32_t> captureChannels{2};
	/** Holds the samples carried from chunk to chunk. Used by the capture callback, reset by attaching. */
	CaptureConverter captureConverter;
	obs_weak_source_t *audioSourceRef = nullptr;
	/** The name that source had when it was attached, for the log. */
	QByteArray attachedName;
	std::atomic<bool> shuttingDown{false};
};
