// SPDX-License-Identifier: GPL-2.0-or-later
#pragma once

#include "audio/speech-resampler.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>
#include <vector>

/** One clip of speech in the queue. */
struct ClipMarker {
	int32_t clipId = 0;
	/** Samples of the clip that are queued. Their sum over all clips is never more than the queue holds. */
	uint64_t samplesRemaining = 0;
	/** Its first sample has been played. */
	bool started = false;
	/** The service has sent all of it, or has begun another clip. */
	bool ended = false;
};

/**
 * Speech that waits to be played, at the output rate, and the clips it belongs to.
 *
 * Playing starts when the first clip has 0.8 s queued or is complete, and stops when a clip runs dry before its end or
 * when nothing is left. Holds 10 s at 48000 Hz; beyond that the oldest samples are lost. Not synchronised: the owner
 * holds its lock. take() neither allocates nor frees.
 */
class SpeechQueue {
public:
	/** Most samples that wait; the oldest make room for new ones. */
	static constexpr size_t kCapacity = 480000;
	/** How much of a clip that is not complete must be queued before it is played, ms. */
	static constexpr uint32_t kPrebufferMs = 800;
	/** Hz; the output rate until the first chunk tells it. */
	static constexpr uint32_t kDefaultOutputRate = 48000;
	/** Hz; the rate of speech whose rate is not given. */
	static constexpr int kDefaultSpeechRate = 24000;

	/** Called with the clip's id. */
	using ClipEvent = std::function<void(int)>;

	SpeechQueue();

	/**
	 * Brings a piece of speech to the output rate, continuously over all pieces. Touches nothing that take() does,
	 * so that it can do without the lock, on the thread that also calls append() and clear().
	 * @param pcm mono signed 16-bit samples
	 * @param speechRate Hz; kDefaultSpeechRate when not positive
	 * @param outputRate Hz; kDefaultOutputRate when 0
	 * @return for append(); valid until the next call
	 */
	SpeechResampler::Made resample(const int16_t *pcm, size_t count, int speechRate, uint32_t outputRate);

	/** Queues a piece. @param clipId 0 for speech that belongs to no clip */
	void append(int clipId, const SpeechResampler::Made &made);

	/** Marks the first clip of that id complete. */
	void endClip(int clipId);

	/** Drops everything and starts anew. */
	void clear();

	/**
	 * Moves up to `frames` samples to `out`.
	 * @param outputRate Hz
	 * @param started,ended called at a clip's first sample and after its last one
	 * @return samples moved
	 */
	size_t take(float *out, size_t frames, uint32_t outputRate, const ClipEvent &started, const ClipEvent &ended);

	/** Samples that wait. */
	size_t size() const { return length; }

	bool isPlaying() const { return playing; }

	/** The clip whose first sample has been played and whose end has not been told; 0 when there is none. */
	int startedClip() const { return hasMarker() && front().started ? front().clipId : 0; }

private:
	friend class SpeechQueueTest;

	bool readyToPlay(uint32_t outputRate) const;
	void dropOldest(uint64_t count);
	void write(std::span<const float> samples);
	void read(float *out, size_t count);

	bool hasMarker() const { return frontIndex < markers.size(); }
	ClipMarker &front() { return markers[frontIndex]; }
	const ClipMarker &front() const { return markers[frontIndex]; }
	void pushMarker(const ClipMarker &marker);
	void popMarker();

	std::vector<float> ring;
	/** Where the next sample is written. */
	size_t writeIndex = 0;
	size_t length = 0;
	/** In playing order; begins at frontIndex. A clip that has been played is stepped over, so take() frees
	 * nothing. */
	std::vector<ClipMarker> markers;
	size_t frontIndex = 0;
	SpeechResampler resampler;
	bool playing = false;
};
