// SPDX-License-Identifier: GPL-3.0-or-later
#include "engines/espeak-synthesiser.h"

#include "base/languages.h"

#include <espeak-ng/speak_lib.h>

namespace {

constexpr int kBufferMs = 200;

int collect(short *samples, int count, espeak_EVENT *events)
{
	if (samples && count > 0) {
		auto *pcm = static_cast<QByteArray *>(events->user_data);
		pcm->append(reinterpret_cast<const char *>(samples), qsizetype{count} * 2);
	}
	return 0;
}

} // namespace

EspeakSynthesiser::~EspeakSynthesiser()
{
	if (sampleRate > 0) {
		espeak_Terminate();
	}
}

bool EspeakSynthesiser::hasVoice(const QString &language) const
{
	return !espeakVoice(language).isEmpty();
}

bool EspeakSynthesiser::start()
{
	if (sampleRate == 0) {
		sampleRate =
			espeak_Initialize(AUDIO_OUTPUT_SYNCHRONOUS, kBufferMs, nullptr, espeakINITIALIZE_DONT_EXIT);
		espeak_SetSynthCallback(collect);
	}
	return sampleRate > 0;
}

std::optional<SpeechClip> EspeakSynthesiser::synthesise(const QString &text, const QString &language)
{
	const QByteArray voice = espeakVoice(language).toLatin1();
	if (voice.isEmpty() || !start() || espeak_SetVoiceByName(voice.constData()) != EE_OK) {
		return std::nullopt;
	}
	SpeechClip clip;
	clip.sampleRate = sampleRate;
	const QByteArray utf8 = text.toUtf8();
	const espeak_ERROR result = espeak_Synth(utf8.constData(), static_cast<size_t>(utf8.size()) + 1, 0,
						 POS_CHARACTER, 0, espeakCHARS_UTF8, nullptr, &clip.pcm);
	if (result != EE_OK || espeak_Synchronize() != EE_OK || clip.pcm.isEmpty()) {
		return std::nullopt;
	}
	return clip;
}
