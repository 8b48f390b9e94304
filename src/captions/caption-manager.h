// SPDX-License-Identifier: GPL-2.0-or-later
#pragma once

#include "captions/caption-state.h"

#include <QColor>
#include <QFont>
#include <QList>
#include <QMap>
#include <QObject>
#include <QSet>
#include <QString>

#include <obs.h>

#include <map>
#include <mutex>

/**
 * Queues captions per language, times them, and shows them in one browser source per language.
 *
 * User-interface thread only. Owns its references to the caption sources; each is let go when OBS removes the source.
 */
class CaptionManager : public QObject {
	Q_OBJECT

public:
	explicit CaptionManager(QObject *parent = nullptr);
	~CaptionManager() override;

	/**
	 * Makes the set of caption languages equal to `languages`: finds or creates a caption source for each new one,
	 * places it, and lets go of those no longer wanted (their sources stay in the scene, blank). A language that is
	 * kept stays as it is.
	 * @param displayNames human name by code; a code without one is shown as it is
	 */
	void setLanguages(const QList<QString> &languages, const QMap<QString, QString> &displayNames);

	/** Finds or creates again the sources that OBS has removed. One that is in a scene already is not moved. */
	void restoreSources();

	/** Places the sources that the user, or the removal of a scene, has taken out of every scene. */
	void placeMissing();

	/** A source of this name has appeared: takes it up for a language of that name that has lost its own. */
	void takeUpSource(const QString &name);

	/** Places the sources that could not be placed because there was no current scene. */
	void placeUnplaced();

	/** Stores the style and sends it to every caption source. @param opacity percent */
	void setStyle(const QString &alignment, const QColor &textColor, const QColor &bgColor, int opacity,
		      const QFont &font);

	/** Drops the captions that wait and blanks the one that is up within 2 s. */
	void endSession();

	/** Takes the caption sources out of OBS and forgets them: the end of the program. */
	void abandonAll();

	/** Forgets every caption source but leaves it in OBS, where setLanguages() will find it by name. */
	void clearAll();

	/** The page file of a language, in the system's temporary directory. */
	QString getBrowserHtmlPath(const QString &language) const;

	/** The path kept for a page that would poll its text from a file; nothing reads or writes it. */
	QString getBrowserDataPath(const QString &language) const;

	/** Style and current text of a language, as its browser source receives them. */
	QString generateCss(const QString &language) const;

	/** How long a text without a given duration stays up, in ms (1800 to 8000). */
	static int calcDisplayMs(const QString &text, float speed);

public Q_SLOTS:
	/**
	 * Queues a caption.
	 * @param durationSec how long it takes to speak it, seconds; 0 or less when unknown
	 * @param syncWithAudio show it when its clip starts instead of by the timer
	 */
	void onCaption(const QString &language, const QString &text, double durationSec, int clipId,
		       bool syncWithAudio);
	/** Empties a language's queue and blanks it. */
	void onCaptionCleared(const QString &language);
	/** The clip's first sample is being played. */
	void onClipStarted(const QString &language, int clipId);
	/** The clip's last sample has been played. */
	void onClipEnded(const QString &language, int clipId);
	/** The clip that was being played will not be heard to its end; its caption goes as if it had been. */
	void onClipLost(const QString &language);
	void onDisplayTimerTick(const QString &language);
	void onClearTimerTick(const QString &language);

private:
	friend class CaptionManagerTest;

	/** Gives the front-end time to finish its own work on the scene. */
	static constexpr int kPlacementDelayMs = 500;

	bool hasSource(const LanguageCaptionState &state);
	LanguageCaptionState *findState(const QString &language);
	void addState(const QString &language, const QString &displayName);
	QTimer *createTimer(const QString &language, void (CaptionManager::*tick)(const QString &));
	void enqueueCaption(LanguageCaptionState &state, const QString &text, double durationSec, int clipId,
			    bool syncWithAudio);
	void advanceQueue(LanguageCaptionState &state);
	/** Starts the clear timer for the caption that is up, unless a timer that will end it runs already. */
	static void blankUntimedCaption(const LanguageCaptionState &state, int ms);
	/** Which sources autoPlaceCaptionSource() is called for: all, or those that are in no scene and shown nowhere.
	 */
	enum class Place { Always, IfMissing };

	void createSourceForLanguage(LanguageCaptionState &state, Place place);
	void destroySourceForLanguage(LanguageCaptionState &state);
	/** Finds or creates the source of a language whose own OBS has removed. */
	void restoreSource(LanguageCaptionState &state);
	void placeLater(const QString &sourceName, Place place);
	void updateObsText(LanguageCaptionState &state, const QString &text);
	/** Sends style and current text, and the page when it is another one than before. */
	void updateObsSettings(LanguageCaptionState &state, obs_source_t *source);
	static void updateBrowserSourceFiles(LanguageCaptionState &state, const QString &text);

	/** Guards the states' sources against their `remove` signals, which may come on any thread. */
	std::mutex sourceLock;
	/** By language code. */
	std::map<QString, LanguageCaptionState> states;
	/** Names of sources for which there was no scene. */
	QSet<QString> unplaced;
	/** Factor of the time calcDisplayMs() gives a text. */
	float readingSpeed = 1.0f;
	/** The style as CSS, which stays the same from caption to caption. */
	QString styleRules;
};
