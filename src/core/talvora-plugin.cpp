// SPDX-License-Identifier: GPL-2.0-or-later
#include "core/talvora-plugin.h"

#include "captions/caption-manager.h"
#include "client/ws-client.h"
#include "deployment.h"
#include "obs/scene-watcher.h"
#include "plugin-support.h"

#include <QTimer>
#include <QWidget>

#include <obs-frontend-api.h>
#include <obs.hpp>
#include <util/profiler.hpp>

#include <utility>

TalvoraPlugin *TalvoraPlugin::instance()
{
	static TalvoraPlugin plugin;
	return &plugin;
}

TalvoraPlugin::TalvoraPlugin()
{
	connect(&dubs, &DubbedOutputs::changed, this, [this] { capture.recheck(); });
	connect(&dubs, &DubbedOutputs::clipStarted, this, &TalvoraPlugin::onClipStarted);
	connect(&dubs, &DubbedOutputs::clipEnded, this, &TalvoraPlugin::onClipEnded);
	connect(&dubs, &DubbedOutputs::clipLost, this, &TalvoraPlugin::onClipLost);
}

TalvoraPlugin::~TalvoraPlugin()
{
	shutdown();
}

// Lifecycle

void TalvoraPlugin::initialize()
{
	if (initialized) {
		return;
	}
	// Appears in OBS's profiler next to the module's load time.
	const ScopeProfiler profiler("TalvoraPlugin::initialize");
	initialized = true;
	capture.setShuttingDown(false);

	loadConfig();

	connectClient(client.make(this));
	client.start();

	captionManager = new CaptionManager(this);
	if (makeDock) {
		dock = makeDock(this);
	}
	QTimer::singleShot(0, this, [this] { capture.restore(); });
	updateDubbedSources();
	// The caption sources of a saved selection would otherwise be made only when the user changes a setting.
	updateCaptionSources();
	watchScene();

	if (settings.autoConnect && !settings.apiKey.isEmpty() && !settings.languageTargets.isEmpty()) {
		talvora_log(LOG_INFO, "Talvora: auto-connecting (autoConnect=true)");
		startSession();
	}

	talvora_log(LOG_INFO, "Talvora plugin initialized. API key: %s, Languages: %s",
		    settings.apiKey.isEmpty() ? "(not set)" : "(set)",
		    targetLanguageCodes().join(QStringLiteral(", ")).toUtf8().constData());
}

void TalvoraPlugin::connectClient(const WSClient *source)
{
	connect(source, &WSClient::authSucceeded, this, &TalvoraPlugin::onAuthSucceeded);
	connect(source, &WSClient::ttsAudioReady, this, &TalvoraPlugin::onTtsAudioReady);
	connect(source, &WSClient::captionUpdated, this, &TalvoraPlugin::onCaptionUpdated);
	connect(source, &WSClient::captionCleared, this, &TalvoraPlugin::onCaptionCleared);
	connect(source, &WSClient::stateChanged, this, &TalvoraPlugin::onWsStateChanged);
	connect(source, &WSClient::errorOccurred, this, &TalvoraPlugin::onWsError);
	connect(source, &WSClient::transcriptInterim, this, &TalvoraPlugin::onTranscriptInterim);
	connect(source, &WSClient::limitWarning, this, &TalvoraPlugin::limitWarning);
	connect(source, &WSClient::limitReached, this, &TalvoraPlugin::limitReached);
	connect(source, &WSClient::sessionEnded, this, &TalvoraPlugin::onSessionEnded);
}

void TalvoraPlugin::shutdown()
{
	if (!initialized) {
		return;
	}
	capture.setShuttingDown(true);
	sceneWatcher.reset();

	if (dock) {
		settings.dockVisible = dock->isVisible();
		obs_frontend_remove_dock(kDockId);
		dock = nullptr;
	}
	saveConfig();
	stopSession();
	detachAudioCapture();

	if (captionManager) {
		captionManager->abandonAll();
		delete std::exchange(captionManager, nullptr);
	}
	dubs.abandon();
	client.stop();
	initialized = false;
	talvora_log(LOG_INFO, "Talvora plugin shut down");
}

// The configuration file

QString TalvoraPlugin::configFilePath() const
{
	return SettingsFile::path();
}

void TalvoraPlugin::loadConfig()
{
	settingsFile.load(settings);
}

void TalvoraPlugin::saveConfig()
{
	settingsFile.save(settings);
	Q_EMIT settingsChanged();
}

// What the user chooses: stored, applied, saved

void TalvoraPlugin::setApiKey(const QString &key)
{
	settings.apiKey = key;
	saveConfig();
}

void TalvoraPlugin::setAudioSource(const QString &name)
{
	if (name == settings.audioSource) {
		return;
	}
	settings.audioSource = name;
	saveConfig();
	attachAudioCapture();
}

void TalvoraPlugin::setLanguageTargets(const LanguageTargets &targets)
{
	settings.languageTargets = targets;
	updateOutputs();
	saveConfig();
	sendConfigUpdate();
}

void TalvoraPlugin::setSourceLanguage(const QString &code)
{
	settings.sourceLanguage = code;
	const auto target = settings.languageTargets.constFind(code);
	if (target != settings.languageTargets.constEnd() && *target == LanguageTarget{.dubbing = true}) {
		settings.languageTargets.remove(code);
	}
	updateOutputs();
	saveConfig();
}

void TalvoraPlugin::setMaxTargetLanguages(int n)
{
	if (n != maxTargetLanguages) {
		maxTargetLanguages = n;
		Q_EMIT maxTargetLanguagesChanged(n);
	}
}

void TalvoraPlugin::setCaptionMode(const QString &mode)
{
	settings.captionMode = mode;
	saveConfig();
	sendConfigUpdate();
}

void TalvoraPlugin::applyCaptionStyle()
{
	updateCaptionSources();
	saveConfig();
}

void TalvoraPlugin::setCaptionAlignment(const QString &alignment)
{
	settings.captionAlignment = alignment;
	applyCaptionStyle();
}

void TalvoraPlugin::setCaptionTextColor(const QColor &color)
{
	settings.captionTextColor = color;
	applyCaptionStyle();
}

void TalvoraPlugin::setCaptionBgColor(const QColor &color)
{
	settings.captionBgColor = color;
	applyCaptionStyle();
}

void TalvoraPlugin::setCaptionOpacity(int percent)
{
	settings.captionOpacity = percent;
	applyCaptionStyle();
}

void TalvoraPlugin::setCaptionFont(const QFont &font)
{
	settings.captionFont = font;
	applyCaptionStyle();
}

void TalvoraPlugin::setDuckingLevel(float level)
{
	settings.duckingLevel = level;
	dubs.setDuckingLevel(level);
	saveConfig();
}

void TalvoraPlugin::setTtsVolume(float volume)
{
	settings.ttsVolume = volume;
	dubs.setTtsVolume(volume);
	saveConfig();
}

void TalvoraPlugin::setMuteOriginal(bool mute)
{
	settings.muteOriginal = mute;
	dubs.setMuteOriginal(mute);
	saveConfig();
}

void TalvoraPlugin::sendConfigUpdate()
{
	// While authenticated the client sends this at once; otherwise it keeps it for the next automatic reconnect.
	client.updateConfig(settings);
}

// Captions

void TalvoraPlugin::updateCaptionSources()
{
	if (!captionManager) {
		return;
	}
	captionManager->setStyle(settings.captionAlignment, settings.captionTextColor, settings.captionBgColor,
				 settings.captionOpacity, settings.captionFont);

	const QStringList languages = captionLanguages();
	QMap<QString, QString> names;
	for (const QString &code : languages) {
		names[code] = displayNameForCode(code);
	}
	captionManager->setLanguages(languages, names);
}

void TalvoraPlugin::previewCaptionText(const QString &text)
{
	const QStringList languages = captionLanguages();
	if (!captionManager || languages.isEmpty()) {
		return;
	}
	updateCaptionSources();
	for (const QString &code : languages) {
		captionManager->onCaption(code, text, 0.0, 0, false);
	}
}

// Sessions

void TalvoraPlugin::startSession()
{
	talvora_log(LOG_INFO, "Talvora: startSession() called");
	if (settings.apiKey.isEmpty()) {
		talvora_log(LOG_WARNING, "Talvora: connect() called with no API key");
		Q_EMIT errorOccurred(QStringLiteral("No API key set. Enter your key in the Talvora dock."));
		return;
	}
	if (!client.exists()) {
		talvora_log(LOG_ERROR, "Talvora: WSClient not initialized");
		return;
	}
	talvora_log(LOG_INFO, "Talvora: connecting to %s (wsThread running: %s)", kServiceEndpoint,
		    client.isRunning() ? "YES" : "NO");
	dubs.flush();
	// Sources that a session needs may have been removed, or may have appeared, since they were last looked for.
	dubs.restore();
	updateCaptionSources();
	if (captionManager) {
		captionManager->restoreSources();
		captionManager->placeMissing();
	}
	capture.restore();

	const bool queued = client.connectToServer(settings);
	talvora_log(LOG_INFO, "Talvora: invokeMethod(connectToServer) = %s", queued ? "OK" : "FAILED");
}

void TalvoraPlugin::stopSession()
{
	if (client.exists()) {
		talvora_log(LOG_INFO, "Talvora: disconnecting...");
		client.disconnectFromServer();
	}
}

void TalvoraPlugin::onWsStateChanged(WsState newState)
{
	talvora_log(LOG_INFO, "Talvora: WS state → %d", static_cast<int>(newState));
	Q_EMIT wsStateChanged(newState);
	const bool isDown = newState == WsState::Disconnected || newState == WsState::Reconnecting;
	if (isDown || newState == WsState::Disconnecting) {
		sessionIsOver = true;
	} else if (newState == WsState::Authenticated) {
		sessionIsOver = false;
	}
	if (isDown) {
		// The clip being received will never get its "tts_end"; left in the queue it would block every later
		// clip.
		dubs.flush();
		if (captionManager) {
			captionManager->endSession();
		}
	}
}

// What the service says

void TalvoraPlugin::onWsError(const QString &msg)
{
	talvora_log(LOG_WARNING, "Talvora WS error: %s", msg.toUtf8().constData());
	Q_EMIT errorOccurred(msg);
}

void TalvoraPlugin::onAuthSucceeded(const QJsonObject &, const QJsonObject &, int newMaxTargetLanguages)
{
	talvora_log(LOG_INFO, "Talvora: session authenticated — maxTargetLanguages=%d", newMaxTargetLanguages);
	setMaxTargetLanguages(newMaxTargetLanguages);
}

void TalvoraPlugin::onSessionEnded(double captionMinutes, double dubbedMinutes)
{
	talvora_log(LOG_INFO, "Talvora: session ended — captions %.1f min, dubbed %.1f min", captionMinutes,
		    dubbedMinutes);
}

void TalvoraPlugin::onCaptionUpdated(const QString &language, const QString &text, double durationSec, int clipId)
{
	if (captionManager && !sessionIsOver) {
		captionManager->onCaption(language, text, durationSec, clipId, false);
	}
}

void TalvoraPlugin::onCaptionCleared(const QString &language)
{
	if (captionManager) {
		captionManager->onCaptionCleared(language);
	}
}

void TalvoraPlugin::onTranscriptInterim(const QString &text)
{
	if (!sessionIsOver) {
		Q_EMIT transcriptUpdated(text);
	}
}

void TalvoraPlugin::onTtsAudioReady(const QString &language, int clipId, const QByteArray &pcmData,
				    int sourceSampleRate)
{
	if (!sessionIsOver) {
		dubs.deliver(language, clipId, pcmData, sourceSampleRate);
	}
}

// What is heard of a clip

void TalvoraPlugin::onClipStarted(const QString &language, int clipId)
{
	if (captionManager) {
		captionManager->onClipStarted(language, clipId);
	}
}

void TalvoraPlugin::onClipEnded(const QString &language, int clipId)
{
	if (captionManager) {
		captionManager->onClipEnded(language, clipId);
	}
}

void TalvoraPlugin::onClipLost(const QString &language)
{
	if (captionManager) {
		captionManager->onClipLost(language);
	}
}

// Changes of the scene

void TalvoraPlugin::watchScene()
{
	sceneWatcher = std::make_unique<SceneWatcher>();
	connect(sceneWatcher.get(), &SceneWatcher::collectionChanged, this, &TalvoraPlugin::restoreOutputs);
	connect(sceneWatcher.get(), &SceneWatcher::sceneChanged, captionManager, &CaptionManager::placeUnplaced);
	connect(sceneWatcher.get(), &SceneWatcher::sourceCreated, this, &TalvoraPlugin::onSourceCreated);
	connect(sceneWatcher.get(), &SceneWatcher::sourceRemoved, this, &TalvoraPlugin::onSourceRemoved);
	connect(sceneWatcher.get(), &SceneWatcher::sourceRenamed, this, &TalvoraPlugin::onSourceRenamed);
}

void TalvoraPlugin::updateOutputs()
{
	// OBS delivers posted events while it clears a collection, so "auth_ok" may lower the limit just then.
	if (!sceneWatcher || !sceneWatcher->isClearing()) {
		updateDubbedSources();
		updateCaptionSources();
	}
}

void TalvoraPlugin::restoreOutputs()
{
	updateDubbedSources();
	dubs.restore();
	updateCaptionSources();
	captionManager->restoreSources();
	capture.restore();
	Q_EMIT audioSourcesChanged();
}

void TalvoraPlugin::onSourceCreated(const QString &name)
{
	takeUpOutput(name);
	if (name == settings.audioSource) {
		capture.restore();
	}
	Q_EMIT audioSourcesChanged();
}

void TalvoraPlugin::takeUpOutput(const QString &name)
{
	const OBSSourceAutoRelease source = obs_get_source_by_name(name.toUtf8().constData());
	if (!source || obs_source_removed(source)) {
		return;
	}
	captionManager->takeUpSource(name);
	dubs.takeUp(name);
}

void TalvoraPlugin::onSourceRemoved()
{
	capture.forgetLostSource();
	Q_EMIT audioSourcesChanged();
}

void TalvoraPlugin::onSourceRenamed(const QString &from, const QString &to)
{
	if (from == settings.audioSource) {
		// The user still means the source that was chosen, whatever it is called now.
		settings.audioSource = to;
		saveConfig();
	}
	takeUpOutput(to);
	if (to == settings.audioSource) {
		capture.restore();
	}
	Q_EMIT audioSourcesChanged();
}
