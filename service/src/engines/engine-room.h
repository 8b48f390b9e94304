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

/// Something a session's decoder noticed.
struct Utterance {
	QString words;         ///< as recognised, lower case; empty when nothing was understood
	double speechSec = 0;  ///< length of the speech
	qint64 detectedMs = 0; ///< monotonic time at which the pause after it was noticed
	qint64 finalMs = 0;    ///< monotonic time at which the words were decided
};

/// Runs the engines on threads of their own, none on the network's: one thread translates, one speaks, and each
/// session has a decoder. Every answer arrives on the thread this object lives on, and only while its receiver lives.
class EngineRoom : public QObject {
	Q_OBJECT

public:
	using RecogniserFactory = std::function<std::unique_ptr<Recogniser>()>;

	struct DecoderCallbacks {
		std::function<void()> unavailable; ///< the recogniser could not be made
		std::function<void(qint64 monoMs)> started;
		std::function<void(const QString &words)> partial;
		std::function<void(const Utterance &utterance)> ended;
	};

	EngineRoom(RecogniserFactory recognisers, std::unique_ptr<Translator> translator,
		   std::unique_ptr<Synthesiser> synthesiser, QObject *parent = nullptr);
	/// Waits until every engine has stopped: up to a few seconds.
	~EngineRoom() override;

	[[nodiscard]] bool canTranslate(const QString &language) const { return m_translator->canTranslate(language); }
	[[nodiscard]] bool hasVoice(const QString &language) const { return m_synthesiser->hasVoice(language); }

	/// Starts what translations into `language` need.
	void prepare(const QString &language);
	/// Translates into each language in turn and answers as soon as each is there; nothing means it failed.
	void translate(const QString &sentence, const QStringList &languages, QObject *receiver,
		       std::function<void(const QString &language, const std::optional<QString> &text)> answer);
	void synthesise(const QString &text, const QString &language, QObject *receiver,
			std::function<void(const std::optional<SpeechClip> &clip)> answer);
	/// Starts a decoder that listens to the returned queue until that is ended.
	std::shared_ptr<AudioQueue> startDecoder(QObject *receiver, DecoderCallbacks callbacks);

private:
	void deliver(const QPointer<QObject> &receiver, std::function<void()> answer);

	RecogniserFactory m_recognisers;
	std::unique_ptr<Translator> m_translator;
	std::unique_ptr<Synthesiser> m_synthesiser;
	QThread m_translatorThread;
	QThread m_synthesiserThread;
	QObject *m_translatorContext;  ///< lives on m_translatorThread
	QObject *m_synthesiserContext; ///< lives on m_synthesiserThread
	QThreadPool m_decoders;
	std::vector<std::weak_ptr<AudioQueue>> m_queues;
	std::atomic<bool> m_stopping = false; ///< what still waits for an engine is left undone
};
