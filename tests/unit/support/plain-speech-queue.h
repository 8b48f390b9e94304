// SPDX-License-Identifier: GPL-2.0-or-later
#pragma once

#include "audio/speech-queue.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <vector>

/** The queue as it is written down: one sample after the other, with the library's own queues. */
class PlainSpeechQueue {
public:
	struct Event {
		char kind; // 's'tarted or 'e'nded
		int clipId;

		bool operator==(const Event &) const = default;
	};

	/** What one call of take() gave. */
	struct Taken {
		std::vector<float> samples;
		std::vector<Event> events;

		bool operator==(const Taken &) const = default;
	};

	void push(int clipId, const std::vector<int16_t> &pcm, int sampleRate, uint32_t outputRate)
	{
		const double ratio = static_cast<double>(outputRate == 0 ? 48000 : outputRate) /
				     static_cast<double>(sampleRate <= 0 ? 24000 : sampleRate);
		uint64_t count = 0;
		for (const int16_t sample : pcm) {
			const float x = static_cast<float>(sample) / 32768.0f;
			double advanced = phase + ratio;
			uint64_t n = 0;
			while (advanced >= 1.0) {
				advanced -= 1.0;
				++n;
			}
			if (n > 0) {
				const float step = (x - last) / static_cast<float>(n);
				for (uint64_t k = 1; k <= n; ++k) {
					queue.push_back(last + static_cast<float>(k) * step);
					++count;
				}
			}
			phase = advanced;
			last = x;
		}
		while (queue.size() > 480000) {
			queue.pop_front();
			if (!markers.empty()) {
				// One that has nothing left has no part in what is dropped.
				while (!markers.empty() && markers.front().samplesRemaining == 0) {
					markers.pop_front();
				}
				if (!markers.empty() && --markers.front().samplesRemaining == 0) {
					markers.pop_front();
				}
			}
		}
		count = std::min<uint64_t>(count, 480000);
		if (count > 0 && clipId != 0) {
			if (!markers.empty() && markers.back().clipId == clipId) {
				markers.back().samplesRemaining += count;
			} else {
				for (ClipMarker &earlier : markers) {
					earlier.ended = true;
				}
				markers.push_back({clipId, count, false, false});
			}
		}
	}

	void endClip(int clipId)
	{
		const auto found = std::find_if(markers.begin(), markers.end(),
						[&](const ClipMarker &marker) { return marker.clipId == clipId; });
		if (found != markers.end()) {
			found->ended = true;
		}
	}

	void clear()
	{
		queue.clear();
		markers.clear();
		phase = 0.0;
		last = 0.0f;
		playing = false;
	}

	Taken take(size_t frames, uint32_t rate)
	{
		Taken result;
		if (!playing && !markers.empty()) {
			const ClipMarker &marker = markers.front();
			playing = marker.samplesRemaining >= rate * 800u / 1000u || marker.ended;
		}
		if (!playing) {
			return result;
		}
		while (!markers.empty() && markers.front().samplesRemaining == 0 && markers.front().ended) {
			if (markers.front().started) {
				result.events.push_back({'e', markers.front().clipId});
			}
			markers.pop_front();
		}
		if (queue.empty()) {
			playing = false;
		}
		const size_t limit = std::min(frames, queue.size());
		while (result.samples.size() < limit) {
			if (markers.empty()) {
				break;
			}
			ClipMarker &marker = markers.front();
			if (!marker.started) {
				marker.started = true;
				result.events.push_back({'s', marker.clipId});
			}
			while (marker.samplesRemaining > 0 && result.samples.size() < limit) {
				result.samples.push_back(queue.front());
				queue.pop_front();
				--marker.samplesRemaining;
			}
			if (marker.samplesRemaining == 0) {
				if (!marker.ended) {
					playing = false;
					break;
				}
				result.events.push_back({'e', marker.clipId});
				markers.pop_front();
			}
		}
		if (queue.empty() && markers.empty()) {
			playing = false;
		}
		return result;
	}

	std::deque<float> queue;
	std::deque<ClipMarker> markers;
	double phase = 0.0;
	float last = 0.0f;
	bool playing = false;
};
