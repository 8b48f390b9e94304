// SPDX-License-Identifier: GPL-2.0-or-later
// Binary frames of speech. The first byte says which clips are open, the second where the rest is cut into two frames.
#include "fuzz.h"

#include "client/tts-assembler.h"

#include <array>
#include <utility>

namespace {

const std::array<const char *, 8> kCodes{"en", "es", "fil", "pt-BR", "e-", "zhHantXXYY", "EN", "--"};

/** The code of an open clip that a tag at `pos` names, by the letter of the wire's description; empty for none. */
QByteArray openTagAt(QByteArrayView frame, qsizetype pos, const PendingTtsClips &clips)
{
	if (frame.size() - pos < 3) {
		return {};
	}
	const int length = static_cast<uint8_t>(frame[pos]);
	if (length < 2 || length > 10 || frame.size() - pos - 1 < length) {
		return {};
	}
	const QByteArray code = frame.sliced(pos + 1, length).toByteArray();
	for (const char c : code) {
		if (!((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '-')) {
			return {};
		}
	}
	return clips.contains(QString::fromLatin1(code)) ? code : QByteArray();
}

/** Which bytes belong to which language, found byte by byte. */
QList<std::pair<QString, QByteArray>> expectedSegments(QByteArrayView frame, const PendingTtsClips &clips)
{
	QList<std::pair<QString, QByteArray>> segments;
	for (qsizetype pos = 0; pos < frame.size();) {
		const QByteArray code = openTagAt(frame, pos, clips);
		if (!code.isEmpty()) {
			segments.append({QString::fromLatin1(code), {}});
			pos += 1 + code.size();
		} else if (pos == 0) {
			break;
		} else {
			segments.last().second.append(frame[pos++]);
		}
	}
	if (segments.isEmpty() && clips.size() == 1 && !frame.isEmpty()) {
		segments.append({clips.begin()->first, frame.toByteArray()});
	}
	return segments;
}

void checkFrame(QByteArrayView frame, PendingTtsClips &clips)
{
	const auto expected = expectedSegments(frame, clips);
	qsizetype count = 0;
	splitTtsFrame(frame, clips, [&](const TtsSegment &segment) {
		FUZZ_CHECK(count < expected.size());
		auto &[language, clip] = *segment.clip;
		const auto &[expectedLanguage, expectedPcm] = expected[count++];
		FUZZ_CHECK(language == expectedLanguage);
		FUZZ_CHECK(segment.pcm == expectedPcm);

		const QByteArray held = clip.pcm;
		clip.pcm.append(segment.pcm);
		const QByteArray samples = takeWholeSamples(clip);
		FUZZ_CHECK(samples.size() % 2 == 0);
		FUZZ_CHECK(clip.pcm.size() <= 1);
		FUZZ_CHECK(samples + clip.pcm == held + expectedPcm);
	});
	FUZZ_CHECK(count == expected.size());
}

} // namespace

int LLVMFuzzerInitialize(int *, char ***)
{
	return 0;
}

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
	FuzzInput input(data, size);
	const uint8_t open = input.byte();
	const uint8_t cut = input.byte();
	PendingTtsClips clips;
	for (size_t i = 0; i < kCodes.size(); ++i) {
		if (open & (1u << i)) {
			openTtsClip(clips, QString::fromLatin1(kCodes[i]), static_cast<int>(i), 24000);
		}
	}
	const QByteArrayView bytes = input.rest();
	const qsizetype first = bytes.size() * cut / 256;
	checkFrame(bytes.first(first), clips);
	checkFrame(bytes.sliced(first), clips);
	return 0;
}
