// SPDX-License-Identifier: GPL-2.0-or-later
// One chunk of captured stereo audio on its way to the service: downmix, decimate, quantise, enqueue.
#include "audio/capture-converter.h"
#include "client/audio-ring.h"

#include "timing.h"

#include <cstring>

extern "C" {
#include <libswresample/swresample.h>
}

namespace {

struct Chunk {
	explicit Chunk(const benchmark::State &state)
		: frames(static_cast<size_t>(state.range(0))), left(noise(frames, 1)), right(noise(frames, 2))
	{
	}

	size_t frames;
	std::vector<float> left;
	std::vector<float> right;
};

void captureOurs(benchmark::State &state)
{
	const Chunk chunk(state);
	CaptureConverter converter;
	AudioRing ring;
	for (auto _ : state) {
		const auto speech = converter.convert(chunk.left.data(), chunk.right.data(), chunk.frames);
		benchmark::DoNotOptimize(ring.write(speech.data(), speech.size_bytes()));
		ring.discard();
	}
	state.SetItemsProcessed(state.iterations());
}
BENCHMARK(captureOurs)->Name("capture/ours")->Arg(1024)->Arg(4096)->Arg(8192);

void captureSwresample(benchmark::State &state)
{
	const Chunk chunk(state);
	const AVChannelLayout mono = AV_CHANNEL_LAYOUT_MONO;
	const AVChannelLayout stereo = AV_CHANNEL_LAYOUT_STEREO;
	SwrContext *resampler = nullptr;
	if (swr_alloc_set_opts2(&resampler, &mono, AV_SAMPLE_FMT_S16, 16000, &stereo, AV_SAMPLE_FMT_FLTP, 48000, 0,
				nullptr) < 0 ||
	    swr_init(resampler) < 0) {
		state.SkipWithError("libswresample does not start");
		return;
	}
	std::vector<int16_t> out(chunk.frames);
	const uint8_t *in[] = {reinterpret_cast<const uint8_t *>(chunk.left.data()),
			       reinterpret_cast<const uint8_t *>(chunk.right.data())};
	auto *planes = reinterpret_cast<uint8_t *>(out.data());
	for (auto _ : state) {
		benchmark::DoNotOptimize(swr_convert(resampler, &planes, static_cast<int>(out.size()), in,
						     static_cast<int>(chunk.frames)));
		touched(out.data());
	}
	state.SetItemsProcessed(state.iterations());
	swr_free(&resampler);
}
BENCHMARK(captureSwresample)->Name("capture/libswresample")->Arg(1024)->Arg(4096)->Arg(8192);

void captureMemcpy(benchmark::State &state)
{
	const Chunk chunk(state);
	std::vector<float> out(2 * chunk.frames);
	for (auto _ : state) {
		std::memcpy(out.data(), chunk.left.data(), chunk.frames * sizeof(float));
		std::memcpy(out.data() + chunk.frames, chunk.right.data(), chunk.frames * sizeof(float));
		touched(out.data());
	}
	state.SetItemsProcessed(state.iterations());
}
BENCHMARK(captureMemcpy)->Name("capture/memcpy")->Arg(1024)->Arg(4096)->Arg(8192);

} // namespace
