// SPDX-License-Identifier: GPL-2.0-or-later
#include "client/tts-assembler.h"

#include "loops/sample-loops.h"

#include <QLatin1String>

#include <algorithm>
#include <array>
#include <cstring>
#include <utility>

namespace {

constexpr qsizetype kMinTagLength = 2;
constexpr qsizetype kMaxTagLength = 10;

bool isTagCharacter(char c)
{
	return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || c == '-';
}

/** The language code of the tag at `pos`, which is in the frame; empty when there is none. */
QLatin1String tagAt(QByteArrayView frame, qsizetype pos)
{
	const qsizetype length = static_cast<unsigned char>(frame[pos]);
	if (length < kMinTagLength || length > kMaxTagLength || pos + 1 + length > frame.size()) {
		return {};
	}
	const QByteArrayView code = frame.sliced(pos + 1, length);
	return std::all_of(code.begin(), code.end(), isTagCharacter) ? QLatin1String(code) : QLatin1String();
}

/** The open clip whose tag is at `pos`. */
PendingTtsClips::iterator clipAt(QByteArrayView frame, qsizetype pos, PendingTtsClips &clips)
{
	const QLatin1String code = tagAt(frame, pos);
	return code.isEmpty() ? clips.end() : clips.find(code);
}

/** Bytes that are looked through for signs of a tag at once. */
constexpr size_t kScanBytes = 512;

/** Where the tag of an open clip begins, from `pos` on, and that clip. Past the last byte when there is none. */
std::pair<qsizetype, PendingTtsClips::iterator> nextClip(QByteArrayView frame, qsizetype pos, PendingTtsClips &clips)
{
	const auto *bytes = reinterpret_cast<const unsigned char *>(frame.data());
	std::array<unsigned char, kScanBytes> marks;
	// The shortest tag is three bytes long.
	const qsizetype end = frame.size() - kMinTagLength;
	while (pos < end) {
		const size_t block = std::min(kScanBytes, static_cast<size_t>(end - pos));
		sample_loops::markTags(bytes + pos, block, marks.data());
		for (size_t i = 0; i < block; ++i) {
			const void *mark = std::memchr(&marks[i], 1, block - i);
			if (!mark) {
				break;
			}
			i = static_cast<size_t>(static_cast<const unsigned char *>(mark) - marks.data());
			const qsizetype start = pos + static_cast<qsizetype>(i);
			if (const auto clip = clipAt(frame, start, clips); clip != clips.end()) {
				return {start, clip};
			}
		}
		pos += static_cast<qsizetype>(block);
	}
	return {frame.size(), clips.end()};
}

} // namespace

void openTtsClip(PendingTtsClips &clips, const QString &language, int clipId, int sampleRate)
{
	if (language.size() > kMaxClipLanguageLength || (clips.size() >= kMaxOpenClips && !clips.contains(language))) {
		return;
	}
	PendingTtsClip &clip = clips[language];
	if (clip.clipId != clipId) {
		clip = PendingTtsClip{clipId, sampleRate, {}};
	}
}

void splitTtsFrame(QByteArrayView frame, PendingTtsClips &clips, const std::function<void(const TtsSegment &)> &visit)
{
	if (clips.empty() || frame.isEmpty()) {
		return;
	}

	qsizetype pos = 0;
	auto clip = clipAt(frame, pos, clips);
	while (clip != clips.end()) {
		const qsizetype start = pos + 1 + clip->first.size();
		const auto [end, next] = nextClip(frame, start, clips);
		visit({clip, frame.sliced(start, end - start)});
		pos = end;
		clip = next;
	}

	if (pos == 0 && clips.size() == 1) {
		visit({clips.begin(), frame});
	}
}

QByteArray takeWholeSamples(PendingTtsClip &clip)
{
	if (clip.pcm.size() % 2 == 0) {
		return std::exchange(clip.pcm, {});
	}
	const QByteArray oddByte = clip.pcm.last(1);
	clip.pcm.chop(1);
	return std::exchange(clip.pcm, oddByte);
}
