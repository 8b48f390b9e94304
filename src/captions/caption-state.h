// SPDX-License-Identifier: GPL-2.0-or-later
#pragma once

#include "obs/public-source.h"

#include <QList>
#include <QString>

#include <mutex>

class QTimer;

/** A caption waiting to be shown. */
struct CaptionEntry {
	QString text;
	/** How long it stays up when the timer paces it, ms. */
	int displayMs = 3000;
	/** The clip that speaks it; 0 when there is none. */
	int clipId = 0;
	/** Shown when its clip starts instead of by the timer. */
	bool syncWithAudio = false;
};

/** What the caption manager keeps for one caption language. */
struct LanguageCaptionState {
	/** @param sourceLock guards `source`; outlives this object */
	explicit LanguageCaptionState(std::mutex &sourceLock) : source(sourceLock) {}

	QString language;
	QString displayName;
	/** Empty when it could not be created and after OBS has removed it. */
	PublicSource source;
	/** The page it loads; empty when there is none that could be written. */
	QString pagePath;
	/** Its name in OBS. */
	QString sourceName;
	/** The text on screen; empty when there is none. Ended by one of the timers, or by the clip being played. */
	QString currentText;
	/** Waiting captions, oldest first. */
	QList<CaptionEntry> queue;
	/** The most captions that wait. */
	qint64 maxQueue = 3;
	/** Runs while a timer-paced caption is up. Single-shot child of the manager, made with the state. */
	QTimer *displayTimer = nullptr;
	/** Runs until the caption is to be blanked. Single-shot child of the manager, made with the state. */
	QTimer *clearTimer = nullptr;
};
