// SPDX-License-Identifier: GPL-2.0-or-later
// Speech from the local service to the plug-in: whatever the samples are, each language's arrive as they were sent.
// The first byte chooses the language, the second the length of a frame.
#include "fuzz.h"

#include "base/languages.h"
#include "client/tts-assembler.h"
#include "session/wire.h"

int LLVMFuzzerInitialize(int *, char ***)
{
	return 0;
}

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
	static const QStringList codes = languageCodes();
	FuzzInput input(data, size);
	const QString &language = codes.at(input.byte() % codes.size());
	const qsizetype frameBytes = 2 + 2 * (input.byte() % 64);
	const QByteArray pcm = input.rest().toByteArray();

	// All languages speak at the same time, so that every tag counts.
	PendingTtsClips clips;
	for (const QString &code : codes) {
		openTtsClip(clips, code, 1, 24000);
	}
	QByteArray arrived;
	for (const QByteArray &frame : taggedFrames(language, pcm, frameBytes)) {
		splitTtsFrame(frame, clips, [&](const TtsSegment &segment) {
			FUZZ_CHECK(segment.clip->first == language);
			FUZZ_CHECK(segment.pcm.size() <= frameBytes);
			arrived.append(segment.pcm);
		});
	}
	FUZZ_CHECK(arrived == pcm);
	return 0;
}
