// SPDX-License-Identifier: GPL-2.0-or-later
#pragma once

#include "audio/audio-capture.h"
#include "audio/dubbed-outputs.h"
#include "client/client-thread.h"
#include "client/ws-state.h"
#include "settings/settings-file.h"
#include "settings/settings.h"

#include <QByteArray>
#include <QJsonArray>
#include <QJsonObject>
#include <QObject>
#include <QPointer>

#include <obs.h>

#include <memory>

class CaptionManager;
class QWidget;
class SceneWatcher;
class WSClient;

/**
 * The core of the module: owns the settings and every other object, starts and stops sessions, and routes what the
 * service sends to captions, dubs and dock. It knows the dock only as a widget, which follows by the
 * signals.
 *
 * User-interface thread only; what runs on other threads is the matter of the objects it owns.
 */
class TalvoraPlugin : public QObject {
	Q_OBJECT

public:
	/** The one object of the process, made on first use. */
	static TalvoraPlugin *instance();
	~TalvoraPlugin() override;

	/** By which OBS knows the dock. */
	static constexpr const char *kDockId = "TalvoraDock";
	/**
	 * Makes the dock and registers it with OBS as `kDockId`; OBS owns it from then on. If the settings say that it
	 * was open last time, it opens with the next turn of the event loop.
	 */
	using DockFactory = QWidget *(*)(TalvoraPlugin *plugin);
	/** Called before initialize(), which calls `make` once. Without a factory there is no dock. */
	void setDockFactory(DockFactory make) { makeDock = make; }

	/** Loads the settings and builds everything. A second call does nothing. */
	void initialize();
	/** Saves the settings and tears everything down. Does nothing unless initialized. */
	void shutdown();

	/** State of the service connection; `Disconnected` when there is no client. */
	WsState wsState() const { return client.state(); }

	/** What the user has chosen; changed only through the setters below. */
	const Settings &currentSettings() const { return settings; }
	/** Target languages the account allows; 0 when no limit is known. */
	int currentMaxTargetLanguages() const { return maxTargetLanguages; }

	QString displayNameForCode(const QString &code) const { return languageDisplayName(code); }
	QStringList targetLanguageCodes() const { return settings.targetLanguageCodes(); }
	QStringList dubbingLanguages() const { return settings.dubbingLanguages(); }
	QStringList captionLanguages() const { return settings.captionLanguages(); }
	QJsonArray buildTargetLanguagesJson() const { return settings.targetLanguagesJson(); }

	/** Replaces the selection; outputs follow, and a running session is told. */
	void setLanguageTargets(const LanguageTargets &targets);
	/** Changes the spoken language; a dubbing-only target of that language goes. Holds from the next session on. */
	void setSourceLanguage(const QString &code);
	void setMaxTargetLanguages(int n);
	void resetMaxTargetLanguages() { setMaxTargetLanguages(0); }

	/** "~/.config/talvora-obs/config.json", with the home directory as Qt knows it. Creates nothing. */
	QString configFilePath() const;
	/** Reads the file into the settings; without a readable file they stay as they are. */
	void loadConfig();
	/** Writes all settings, then emits settingsChanged(). A file that cannot be opened is logged. */
	void saveConfig();

	/** Asks the client to connect. Without an API key emits errorOccurred(). */
	void startSession();
	/** Asks the client to disconnect; does nothing without a client. */
	void stopSession();
	/** Stores the key; neither connects nor reconnects. */
	void setApiKey(const QString &key);

	/** Makes the dubbed sources those of the dubbing languages without the spoken one. */
	void updateDubbedSources() { dubs.update(); }
	/** Hands style and caption languages to the caption manager. */
	void updateCaptionSources();
	/** Shows `text` in every caption language. */
	void previewCaptionText(const QString &text);

	/** @param mode "translated" or "original"; a running session is told */
	void setCaptionMode(const QString &mode);
	/** @param alignment "left", "center" or "right" */
	void setCaptionAlignment(const QString &alignment);
	void setCaptionTextColor(const QColor &color);
	void setCaptionBgColor(const QColor &color);
	/** @param percent 0 to 100 */
	void setCaptionOpacity(int percent);
	void setCaptionFont(const QFont &font);
	/** @param level gain of the original under speech, 0 to 1 */
	void setDuckingLevel(float level);
	/** @param volume gain of the speech, 0 to 1 */
	void setTtsVolume(float volume);
	void setMuteOriginal(bool mute);
	/** Captures the source of this name from now on; empty for none. */
	void setAudioSource(const QString &name);

	/** Captures the audio of the source the settings name, in place of the one captured so far. */
	void attachAudioCapture() { capture.attach(); }
	/** Stops capturing, if anything is captured. */
	void detachAudioCapture() { capture.detach(); }

public Q_SLOTS:
	void onWsStateChanged(WsState newState);
	void onWsError(const QString &msg);
	void onAuthSucceeded(const QJsonObject &voiceProfile, const QJsonObject &limits, int newMaxTargetLanguages);
	void onSessionEnded(double captionMinutes, double dubbedMinutes);
	void onCaptionUpdated(const QString &language, const QString &text, double durationSec, int clipId);
	void onCaptionCleared(const QString &language);
	void onTranscriptInterim(const QString &text);
	void onTtsAudioReady(const QString &language, int clipId, const QByteArray &pcmData, int sourceSampleRate);
	void onClipStarted(const QString &language, int clipId);
	void onClipEnded(const QString &language, int clipId);
	/** See DubbedOutputs::clipLost(). */
	void onClipLost(const QString &language);

Q_SIGNALS:
	/**
	 * The settings have been stored and saved, perhaps with the same values as before: currentSettings() is up to
	 * date. Emitted by saveConfig(), from within the setter that has changed something.
	 */
	void settingsChanged();
	void wsStateChanged(WsState newState);
	void transcriptUpdated(const QString &text);
	/** @param feature "captions" or "dubbed" */
	void limitWarning(const QString &feature, int minutesRemaining);
	void limitReached(const QString &feature);
	/** @param msg an English sentence for the user */
	void errorOccurred(const QString &msg);
	void maxTargetLanguagesChanged(int n);
	/** Sources have come, gone or been renamed, or another audio source is captured now. */
	void audioSourcesChanged();

private:
	friend class TalvoraPluginTest;
	friend class PluginDockTest;

	TalvoraPlugin();

	/** Routes what the service sends. */
	void connectClient(const WSClient *source);
	void watchScene();
	/** Updates dubs and captions: now, or when OBS has finished changing the scene collection. */
	void updateOutputs();
	/** Updates and restores dubs, captions and capture after OBS has loaded another scene collection. */
	void restoreOutputs();
	void onSourceCreated(const QString &name);
	/** Takes up a source that has appeared under the name of a dub's or caption's source that OBS has removed. */
	void takeUpOutput(const QString &name);
	void onSourceRemoved();
	void onSourceRenamed(const QString &from, const QString &to);
	void applyCaptionStyle();
	void sendConfigUpdate();

	Settings settings;
	SettingsFile settingsFile;
	ClientThread client;
	DubbedOutputs dubs{settings};
	AudioCapture capture{settings, dubs, client};
	CaptionManager *captionManager = nullptr;
	DockFactory makeDock = nullptr;
	QPointer<QWidget> dock;
	std::unique_ptr<SceneWatcher> sceneWatcher;
	int maxTargetLanguages = 0;
	bool initialized = false;
	/** The service may go on sending after the end of a session; none of it is shown or spoken. */
	bool sessionIsOver = false;
};
