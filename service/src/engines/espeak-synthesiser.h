// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "engines/engines.h"

/** Speech from espeak-ng, in process. The library keeps global state: one object per process, used by one thread. */
class EspeakSynthesiser : public Synthesiser {
public:
	EspeakSynthesiser() = default;
	~EspeakSynthesiser() override;
	EspeakSynthesiser(const EspeakSynthesiser &) = delete;
	EspeakSynthesiser &operator=(const EspeakSynthesiser &) = delete;

	[[nodiscard]] bool hasVoice(const QString &language) const override;
	std::optional<SpeechClip> synthesise(const QString &text, const QString &language) override;

private:
	bool start();

	/** Hz; 0 before the first use, negative when the library cannot start. */
	int sampleRate = 0;
};
