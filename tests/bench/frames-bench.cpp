// SPDX-License-Identifier: GPL-2.0-or-later
// Binary frames of random PCM, cut at the tags of the open clips.
#include "client/tts-assembler.h"
#include "settings/language-catalogue.h"

#include "timing.h"

#include <cstring>

namespace {

constexpr qsizetype kPcmBytes = 9600;

PendingTtsClips openClips(int64_t count)
{
	PendingTtsClips clips;
	for (const LanguageInfo &language : kSupportedLanguages) {
		if (static_cast<int64_t>(clips.size()) < count) {
			openTtsClip(clips, language.code, 1, 24000);
		}
	}
	return clips;
}

/** Tagged with the first open clip, random PCM behind it. */
QByteArray makeFrame(const PendingTtsClips &clips)
{
	const QByteArray code = clips.begin()->first.toLatin1();
	const std::vector<int16_t> pcm = speechNoise(kPcmBytes / 2, 7);
	return QByteArray(1, static_cast<char>(code.size())) + code +
	       QByteArray(reinterpret_cast<const char *>(pcm.data()), kPcmBytes);
}

void finish(benchmark::State &state, const QByteArray &frame)
{
	state.SetBytesProcessed(state.iterations() * frame.size());
	state.SetItemsProcessed(state.iterations());
}

void framesOurs(benchmark::State &state)
{
	PendingTtsClips clips = openClips(state.range(0));
	const QByteArray frame = makeFrame(clips);
	for (auto _ : state) {
		qsizetype bytes = 0;
		splitTtsFrame(frame, clips, [&bytes](const TtsSegment &segment) { bytes += segment.pcm.size(); });
		benchmark::DoNotOptimize(bytes);
	}
	finish(state, frame);
}
BENCHMARK(framesOurs)->Name("frames/ours")->Arg(1)->Arg(31);

/** One byte after the other: is it the length of a tag that names an open clip? */
void framesPlain(benchmark::State &state)
{
	PendingTtsClips clips = openClips(state.range(0));
	const QByteArray frame = makeFrame(clips);
	const auto tagAt = [&](qsizetype pos) {
		const auto length = qsizetype{static_cast<unsigned char>(frame[pos])};
		if (pos + 2 >= frame.size() || length < 2 || length > 10 || pos + 1 + length > frame.size()) {
			return false;
		}
		for (qsizetype i = pos + 1; i <= pos + length; ++i) {
			const char c = frame[i];
			if (!(c >= 'A' && c <= 'Z') && !(c >= 'a' && c <= 'z') && c != '-') {
				return false;
			}
		}
		return clips.find(QLatin1String(frame.constData() + pos + 1, length)) != clips.end();
	};
	for (auto _ : state) {
		qsizetype end = 1 + frame[0];
		while (end < frame.size() && !tagAt(end)) {
			++end;
		}
		benchmark::DoNotOptimize(end);
	}
	finish(state, frame);
}
BENCHMARK(framesPlain)->Name("frames/plain")->Arg(1)->Arg(31);

/** For a byte that is not there. */
void framesMemchr(benchmark::State &state)
{
	const PendingTtsClips clips = openClips(state.range(0));
	QByteArray frame = makeFrame(clips);
	frame.replace('\x7f', '\x7e');
	for (auto _ : state) {
		benchmark::DoNotOptimize(std::memchr(frame.constData(), 0x7f, static_cast<size_t>(frame.size())));
		benchmark::ClobberMemory();
	}
	finish(state, frame);
}
BENCHMARK(framesMemchr)->Name("frames/memchr")->Arg(1)->Arg(31);

} // namespace
