// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QByteArray>
#include <QString>

#include <cstdint>
#include <optional>
#include <span>

/** Rate of the speech that clients send, Hz: mono, signed 16-bit. */
constexpr int kUplinkRate = 16000;

/** What a recogniser tells while it listens. Called from within Recogniser::process(), on its thread. */
class RecogniserListener {
public:
	virtual ~RecogniserListener() = default;
	/** Somebody started to speak. */
	virtual void utteranceStarted() = 0;
	/** The words so far, lower case, never empty; only when they changed. */
	virtual void partialWords(const QString &words) = 0;
	/**
	 * The speaker paused. `words` is empty when nothing was understood; `speechSec` is the length of the speech.
	 * `detectedMs` is the monotonic time at which the pause was noticed, before the words were decided.
	 */
	virtual void utteranceEnded(const QString &words, double speechSec, qint64 detectedMs) = 0;
};

/** Turns one speaker's audio into words. Used by one thread at a time; calls may take a second. */
class Recogniser {
public:
	virtual ~Recogniser() = default;
	/** Takes the next samples (kUplinkRate, any number). */
	virtual void process(std::span<const int16_t> samples, RecogniserListener &listener) = 0;
};

/** Translates English sentences. All but canTranslate() is used by one thread. */
class Translator {
public:
	virtual ~Translator() = default;
	/** Whether sentences can be translated into `language`. Callable from any thread. */
	[[nodiscard]] virtual bool canTranslate(const QString &language) const = 0;
	/** Starts what a translation into `language` needs, without waiting for it. */
	virtual void prepare(const QString &language) = 0;
	/** The translation, or nothing when the engine failed. Blocks; bounded to a few seconds. */
	virtual std::optional<QString> translate(const QString &sentence, const QString &language) = 0;
};

/** Mono signed 16-bit little-endian speech. */
struct SpeechClip {
	QByteArray pcm;
	/** Hz. */
	int sampleRate = 0;

	[[nodiscard]] double seconds() const
	{
		const qsizetype samples = pcm.size() / 2;
		return sampleRate > 0 ? static_cast<double>(samples) / sampleRate : 0.0;
	}
};

/** Speaks sentences. All but hasVoice() is used by one thread. */
class Synthesiser {
public:
	virtual ~Synthesiser() = default;
	/** Whether there is a voice for `language`. Callable from any thread. */
	[[nodiscard]] virtual bool hasVoice(const QString &language) const = 0;
	/** The spoken sentence, or nothing when the engine failed. Blocks. */
	virtual std::optional<SpeechClip> synthesise(const QString &text, const QString &language) = 0;
};
