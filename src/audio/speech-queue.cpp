// SPDX-License-Identifier: GPL-2.0-or-later
#include "audio/speech-queue.h"

#include <algorithm>

namespace {

/** Clips for which room is reserved. The list grows beyond that, on the thread that appends. */
constexpr size_t kUsualMarkers = 64;

} // namespace

SpeechQueue::SpeechQueue() : ring(kCapacity)
{
	markers.reserve(kUsualMarkers);
}

SpeechResampler::Made SpeechQueue::resample(const int16_t *pcm, size_t count, int speechRate, uint32_t outputRate)
{
	const double ratio = static_cast<double>(outputRate > 0 ? outputRate : kDefaultOutputRate) /
			     static_cast<double>(speechRate > 0 ? speechRate : kDefaultSpeechRate);
	return resampler.resample(pcm, count, ratio, kCapacity);
}

void SpeechQueue::append(int clipId, const SpeechResampler::Made &made)
{
	write(made.samples);
	const uint64_t total = length + made.count;
	dropOldest(total > kCapacity ? total - kCapacity : 0);
	length = static_cast<size_t>(std::min<uint64_t>(total, kCapacity));
	const size_t kept = made.samples.size();

	if (kept == 0 || clipId == 0) {
		return;
	}
	if (hasMarker() && markers.back().clipId == clipId) {
		markers.back().samplesRemaining += kept;
		return;
	}
	if (hasMarker()) {
		// Its "tts_end" may have been lost; playing would wait for it.
		markers.back().ended = true;
	}
	pushMarker({.clipId = clipId, .samplesRemaining = kept});
}

void SpeechQueue::endClip(int clipId)
{
	for (size_t i = frontIndex; i < markers.size(); ++i) {
		if (markers[i].clipId == clipId) {
			markers[i].ended = true;
			return;
		}
	}
}

void SpeechQueue::clear()
{
	length = 0;
	markers.clear();
	frontIndex = 0;
	resampler.reset();
	playing = false;
}

size_t SpeechQueue::take(float *out, size_t frames, uint32_t outputRate, const ClipEvent &started,
			 const ClipEvent &ended)
{
	if (!playing) {
		playing = readyToPlay(outputRate);
	}
	if (!playing) {
		return 0;
	}

	// Clips whose end was announced only after their last sample had been played.
	while (hasMarker() && front().samplesRemaining == 0 && front().ended) {
		if (front().started) {
			ended(front().clipId);
		}
		popMarker();
	}
	if (length == 0) {
		playing = false;
	}

	const size_t limit = std::min(frames, length);
	size_t taken = 0;
	while (taken < limit && hasMarker()) {
		ClipMarker &clip = front();
		if (!clip.started) {
			clip.started = true;
			started(clip.clipId);
		}
		const size_t count = static_cast<size_t>(std::min<uint64_t>(clip.samplesRemaining, limit - taken));
		read(out + taken, count);
		taken += count;
		clip.samplesRemaining -= count;
		if (clip.samplesRemaining > 0) {
			continue;
		}
		if (!clip.ended) {
			playing = false;
			break;
		}
		ended(clip.clipId);
		popMarker();
	}

	if (length == 0 && !hasMarker()) {
		playing = false;
	}
	return taken;
}

bool SpeechQueue::readyToPlay(uint32_t outputRate) const
{
	const uint32_t prebuffer = outputRate * kPrebufferMs / 1000u;
	return hasMarker() && (front().samplesRemaining >= prebuffer || front().ended);
}

/** Takes `count` dropped samples off the clips they belonged to. A clip that has none left vanishes unheard. */
void SpeechQueue::dropOldest(uint64_t count)
{
	while (count > 0 && hasMarker()) {
		const uint64_t dropped = std::min(front().samplesRemaining, count);
		front().samplesRemaining -= dropped;
		count -= dropped;
		if (front().samplesRemaining == 0) {
			popMarker();
		}
	}
}

/** Writes samples, kCapacity at most, over the oldest when the ring is full; the caller keeps the length. */
void SpeechQueue::write(std::span<const float> samples)
{
	const size_t beforeWrap = std::min(samples.size(), kCapacity - writeIndex);
	std::copy_n(samples.data(), beforeWrap, ring.data() + writeIndex);
	std::copy_n(samples.data() + beforeWrap, samples.size() - beforeWrap, ring.data());
	writeIndex = (writeIndex + samples.size()) % kCapacity;
}

void SpeechQueue::read(float *out, size_t count)
{
	const size_t readIndex = (writeIndex + kCapacity - length) % kCapacity;
	const size_t beforeWrap = std::min(count, kCapacity - readIndex);
	std::copy_n(ring.data() + readIndex, beforeWrap, out);
	std::copy_n(ring.data(), count - beforeWrap, out + beforeWrap);
	length -= count;
}

void SpeechQueue::pushMarker(const ClipMarker &marker)
{
	// Half of the list has been stepped over: moving the rest to the front is cheaper than growing.
	if (markers.size() == markers.capacity() && frontIndex >= markers.size() / 2) {
		markers.erase(markers.begin(), markers.begin() + static_cast<ptrdiff_t>(frontIndex));
		frontIndex = 0;
	}
	markers.push_back(marker);
}

void SpeechQueue::popMarker()
{
	++frontIndex;
	if (!hasMarker()) {
		markers.clear();
		frontIndex = 0;
	}
}
