// SPDX-License-Identifier: GPL-2.0-or-later
// Ten seconds of speech brought from 24 kHz to the output rate, in pieces of a tenth of a second.
#include "audio/speech-queue.h"

#include "timing.h"

#include <algorithm>

#include <samplerate.h>

extern "C" {
#include <libavutil/opt.h>
#include <libswresample/swresample.h>
}

namespace {

constexpr int kSpeechRate = 24000;
constexpr size_t kPiece = kSpeechRate / 10;
constexpr size_t kPieces = 100;

/** Calls `resample(samples)` for each piece. */
template <typename Resample> void measure(benchmark::State &state, Resample &&resample)
{
	const std::vector<int16_t> pcm = speechNoise(kPiece * kPieces, 1);
	for (auto _ : state) {
		for (size_t piece = 0; piece < kPieces; ++piece) {
			resample(pcm.data() + piece * kPiece);
		}
	}
	state.SetItemsProcessed(state.iterations());
}

void speechOurs(benchmark::State &state)
{
	const auto rate = static_cast<uint32_t>(state.range(0));
	SpeechQueue queue;
	measure(state, [&](const int16_t *piece) {
		touched(queue.resample(piece, kPiece, kSpeechRate, rate).samples.data());
	});
}
BENCHMARK(speechOurs)->Name("speech/ours")->Arg(48000)->Arg(44100);

void speechSamplerate(benchmark::State &state)
{
	int error = 0;
	SRC_STATE *resampler = src_new(SRC_LINEAR, 1, &error);
	std::vector<float> in(kPiece);
	std::vector<float> out(3 * kPiece);
	SRC_DATA job = {};
	job.src_ratio = static_cast<double>(state.range(0)) / kSpeechRate;
	measure(state, [&](const int16_t *piece) {
		src_short_to_float_array(piece, in.data(), static_cast<int>(kPiece));
		job.data_in = in.data();
		job.input_frames = static_cast<long>(kPiece);
		job.data_out = out.data();
		job.output_frames = static_cast<long>(out.size());
		src_process(resampler, &job);
		touched(out.data());
	});
	src_delete(resampler);
}
BENCHMARK(speechSamplerate)->Name("speech/libsamplerate")->Arg(48000)->Arg(44100);

/** @param filter taps; 0 for its own choice */
void speechSwresample(benchmark::State &state, int filter)
{
	const AVChannelLayout mono = AV_CHANNEL_LAYOUT_MONO;
	SwrContext *resampler = nullptr;
	if (swr_alloc_set_opts2(&resampler, &mono, AV_SAMPLE_FMT_FLT, static_cast<int>(state.range(0)), &mono,
				AV_SAMPLE_FMT_S16, kSpeechRate, 0, nullptr) < 0 ||
	    av_opt_set_int(resampler, "linear_interp", 1, 0) < 0 ||
	    (filter > 0 && av_opt_set_int(resampler, "filter_size", filter, 0) < 0) || swr_init(resampler) < 0) {
		state.SkipWithError("libswresample does not start");
		return;
	}
	std::vector<float> out(3 * kPiece);
	auto *planes = reinterpret_cast<uint8_t *>(out.data());
	measure(state, [&](const int16_t *piece) {
		const auto *in = reinterpret_cast<const uint8_t *>(piece);
		swr_convert(resampler, &planes, static_cast<int>(out.size()), &in, static_cast<int>(kPiece));
		touched(out.data());
	});
	swr_free(&resampler);
}
BENCHMARK_CAPTURE(speechSwresample, own, 0)->Name("speech/libswresample")->Arg(48000)->Arg(44100);
// The fewest taps that it has: as near to straight lines, and as fast, as it gets.
BENCHMARK_CAPTURE(speechSwresample, shortest, 2)->Name("speech/libswresample-2")->Arg(48000)->Arg(44100);

} // namespace
