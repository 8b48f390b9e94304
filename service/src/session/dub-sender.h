// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "engines/engines.h"

#include <QByteArray>
#include <QJsonObject>
#include <QList>
#include <QObject>
#include <QTimer>

#include <deque>
#include <functional>
#include <map>

/**
 * Sends one session's speech clips, per language one after the other, at most a few seconds ahead of their playing:
 * a client keeps only 10 s, so a burst would lose its beginning. Speech that is too late by then is left out, so
 * that the dub's delay stays bounded however much longer than the original it is.
 */
class DubSender : public QObject {
	Q_OBJECT

public:
	struct Output {
		std::function<void(const QJsonObject &)> text;
		std::function<void(const QByteArray &)> binary;
		/** A clip was announced ("tts_start"), sent whole ("tts_end") or left out ("tts_dropped"). */
		std::function<void(const QString &event, const QString &language, int clipId, double seconds)> report;
	};

	/** Seconds of speech that a client is given before it plays. */
	static constexpr double kAheadSec = 5.0;
	/** Seconds of speech that may wait here for a language; older clips are left out. */
	static constexpr double kBacklogSec = 20.0;

	explicit DubSender(Output output, QObject *parent = nullptr);
	void enqueue(const QString &language, int clipId, const SpeechClip &clip);
	/** Leaves out what waits for a language; a clip that has been announced is finished. */
	void leaveOutWaiting(const QString &language);

private:
	struct Clip {
		int id = 0;
		int sampleRate = 0;
		double seconds = 0.0;
		QList<QByteArray> frames;
		/** Frame to send next; 0 also means not announced. */
		qsizetype next = 0;
	};
	struct Queue {
		std::deque<Clip> clips;
		/** Monotonic time at which all that was sent has been played. */
		double playedAtSec = 0.0;
	};

	void pumpAll();
	void pump(const QString &language, Queue &queue);
	void sendFrame(const QString &language, Queue &queue);
	void leaveOutOld(const QString &language, Queue &queue);
	void leaveOut(const QString &language, Queue &queue, const std::deque<Clip>::iterator &clip);

	Output output;
	std::map<QString, Queue> queues;
	QTimer timer;
};
