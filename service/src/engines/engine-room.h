// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "engines/audio-queue.h"
#include "engines/engines.h"

#include <QObject>
#include <QPointer>
#include <QStringList>
#include <QThread>
#include <QThreadPool>

#include <atomic>
#include <functional>
#include <memory>

/** Something a session's decoder noticed. */
struct Utterance {
	/** As recognised, lower case; empty when nothing was understood. */
	QString words;
	/** Length of the speech. */
	double speechSec = 0;
	/** Monotonic time at which the pause after it was noticed. */
	qint64 detectedMs = 0;
	/** Monotonic time at which the words were decided. */
	qint64 finalMs = 0;
};

/**
 * Runs the engines on threads of their own, none on the network's: one thread translates, one speaks, and each
 * session has a decoder. Every answer arrives on the thread this object lives on, and only while its receiver lives.
 */
class EngineRoom : public QObject {
	Q_OBJECT

public:
	using RecogniserFactory = std::function<std::unique_ptr<Recogniser>()>;

	struct DecoderCallbacks {
		/** The recogniser could not be made. */
		std::function<void()> unavailable;
		std::function<void(qint64 monoMs)> started;
		std::function<void(const QString &words)> partial;
		std::function<void(const Utterance &utterance)> ended;
	};

	EngineRoom(RecogniserFactory recognisers, std::unique_ptr<Translator> translator,
		   std::unique_ptr<Synthesiser> synthesiser, QObject *parent = nullptr);
	/** Waits until every engine has stopped: up to a few seconds. */
	~EngineRoom() override;

	[[nodiscard]] bool canTranslate(const QString &language) const { return translator->canTranslate(language); }
	[[nodiscard]] bool hasVoice(const QString &language) const { return synthesiser->hasVoice(language); }

	/** Starts what translations into `language` need. */
	void prepare(const QString &language);
	/** Translates into each language in turn and answers as soon as each is there; nothing means it failed. */
	void translate(const QString &sentence, const QStringList &languages, QObject *receiver,
		       std::function<void(const QString &language, const std::optional<QString> &text)> answer);
	void synthesise(const QString &text, const QString &language, QObject *receiver,
			std::function<void(const std::optional<SpeechClip> &clip)> answer);
	/** Starts a decoder that listens to the returned queue until that is ended. */
	std::shared_ptr<AudioQueue> startDecoder(QObject *receiver, DecoderCallbacks callbacks);

private:
	void deliver(const QPointer<QObject> &receiver, std::function<void()> answer);

	RecogniserFactory recognisers;
	std::unique_ptr<Translator> translator;
	std::unique_ptr<Synthesiser> synthesiser;
	QThread translatorThread;
	QThread synthesiserThread;
	/** Lives on translatorThread. */
	QObject *translatorContext;
	/** Lives on synthesiserThread. */
	QObject *synthesiserContext;
	QThreadPool decoders;
	std::vector<std::weak_ptr<AudioQueue>> queues;
	/** What still waits for an engine is left undone. */
	std::atomic<bool> stopping = false;
};
