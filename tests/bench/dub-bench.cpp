// SPDX-License-Identifier: GPL-2.0-or-later
// One language speaking: take speech, ramp, mix, clamp, for chunks of 1024 frames. What OBS does with the result is not
// in it.
#include "audio/dubbed-source.h"

#include "audio-output.h"
#include "obs-session.h"
#include "timing.h"

#include <algorithm>
#include <cstring>
#include <deque>

namespace {

constexpr size_t kFrames = 1024;
/** Of speech that is queued at once: two seconds and a little more. */
constexpr size_t kChunks = 110;

/** The original's level is held while speech plays, or changes all the time. */
enum Level : int64_t { Held, Moving };

float duckingOf(size_t chunk)
{
	return chunk % 2 ? 0.9f : 0.1f;
}

void dubOurs(benchmark::State &state)
{
	startObs();
	const AudioOutput::Mute mute;
	const std::vector<float> left = noise(kFrames, 1);
	const std::vector<float> right = noise(kFrames, 2);
	const std::vector<int16_t> pcm = speechNoise(kChunks * kFrames / 2, 3);
	DubbedSource dub("es", "Spanish");
	for (auto _ : state) {
		dub.flush();
		dub.pushTtsAudio(1, pcm.data(), pcm.size(), 24000);
		const auto play = [&](size_t chunks) {
			for (size_t chunk = 0; chunk < chunks; ++chunk) {
				if (state.range(0) == Moving) {
					dub.setDuckingLevel(duckingOf(chunk));
				}
				dub.pushOriginalAudio(left.data(), right.data(), kFrames, 48000, 1);
			}
		};
		// Until the original is down.
		play(10);
		state.SetIterationTime(secondsOf([&] { play(kChunks - 10); }));
	}
	state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(kChunks - 10));
}
BENCHMARK(dubOurs)->Name("dub/ours")->Arg(Held)->Arg(Moving)->UseManualTime();

/** The same work as one would write it down first. */
class ScalarDub {
public:
	void push(const std::vector<int16_t> &pcm)
	{
		float last = 0.0f;
		for (const int16_t sample : pcm) {
			const float x = static_cast<float>(sample) / 32768.0f;
			queue.push_back((last + x) / 2.0f);
			queue.push_back(x);
			last = x;
		}
	}

	void play(const std::vector<float> &left, const std::vector<float> &right, std::vector<float> &outLeft,
		  std::vector<float> &outRight, float target)
	{
		const float step = (1.0f - target) / (48000.0f * (gain <= target ? 0.3f : 0.15f));
		for (size_t i = 0; i < left.size(); ++i) {
			if (gain < target) {
				gain = std::min(gain + step, target);
			} else if (gain > target) {
				gain = std::max(gain - step, target);
			}
			float voice = 0.0f;
			if (!queue.empty()) {
				voice = queue.front() * voiceLevel;
				queue.pop_front();
			}
			outLeft[i] = std::clamp(left[i] * gain + voice, -1.0f, 1.0f);
			outRight[i] = std::clamp(right[i] * gain + voice, -1.0f, 1.0f);
		}
	}

private:
	std::deque<float> queue;
	float gain = 1.0f;
	float voiceLevel = 1.0f;
};

void dubScalar(benchmark::State &state)
{
	const std::vector<float> left = noise(kFrames, 1);
	const std::vector<float> right = noise(kFrames, 2);
	const std::vector<int16_t> pcm = speechNoise(kChunks * kFrames / 2, 3);
	std::vector<float> outLeft(kFrames);
	std::vector<float> outRight(kFrames);
	for (auto _ : state) {
		ScalarDub dub;
		dub.push(pcm);
		const auto play = [&](size_t chunks) {
			for (size_t chunk = 0; chunk < chunks; ++chunk) {
				dub.play(left, right, outLeft, outRight,
					 state.range(0) == Moving ? duckingOf(chunk) : 0.2f);
				touched(outLeft.data());
			}
		};
		play(10);
		state.SetIterationTime(secondsOf([&] { play(kChunks - 10); }));
	}
	state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(kChunks - 10));
}
BENCHMARK(dubScalar)->Name("dub/scalar")->Arg(Held)->Arg(Moving)->UseManualTime();

/** Input and output once: two planes in, the speech in, two planes out. */
void dubMemcpy(benchmark::State &state)
{
	const std::vector<float> in = noise(5 * kFrames, 1);
	std::vector<float> out(5 * kFrames);
	for (auto _ : state) {
		for (size_t plane = 0; plane < 5; ++plane) {
			std::memcpy(out.data() + plane * kFrames, in.data() + plane * kFrames, kFrames * sizeof(float));
		}
		touched(out.data());
	}
	state.SetItemsProcessed(state.iterations());
}
BENCHMARK(dubMemcpy)->Name("dub/memcpy");

} // namespace
