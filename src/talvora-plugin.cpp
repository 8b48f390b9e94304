// SPDX-License-Identifier: GPL-2.0-or-later
#include "talvora-plugin.h"

#include "browser-source.h"
#include "caption-manager.h"
#include "deployment.h"
#include "plugin-dock.h"
#include "plugin-support.h"
#include "scene-watcher.h"
#include "ws-client.h"

#include <QThread>
#include <QTimer>
#include <QtEndian>

#include <obs-frontend-api.h>
#include <obs.hpp>
#include <util/profiler.hpp>

#include <algorithm>
#include <cstring>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace {

constexpr uint32_t kExpectedSampleRate = 48000;

bool isCapturable(const obs_source_t *source)
{
	const char *id = obs_source_get_id(source);
	// A browser source announces audio that capture callbacks do not get. A dub may come into use at any time.
	return (obs_source_get_output_flags(source) & OBS_SOURCE_AUDIO) != 0 && strcmp(id, kBrowserSourceId) != 0 &&
	       strcmp(id, dubbed_source_info()->id) != 0;
}

} // namespace

TalvoraPlugin *TalvoraPlugin::instance()
{
	static TalvoraPlugin plugin;
	return &plugin;
}

TalvoraPlugin::TalvoraPlugin() = default;

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
	// Stands in OBS's own table of how long everything took, beside the loading of the module.
	const ScopeProfiler profiler("TalvoraPlugin::initialize");
	initialized = true;
	shuttingDown = false;

	loadConfig();

	wsThread = new QThread(this);
	wsThread->setObjectName(QStringLiteral("TA-WebSocket"));
	wsClient = new WSClient();
	wsClient.load()->moveToThread(wsThread);
	connectClient();
	wsThread->start();

	captionManager = new CaptionManager(this);
	createDock();
	QTimer::singleShot(0, this, &TalvoraPlugin::restoreAudioCapture);
	updateDubbedSources();
	// Without this the captions of a saved selection would have nowhere to go until the user changes a setting.
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

void TalvoraPlugin::connectClient()
{
	WSClient *client = wsClient;
	connect(client, &WSClient::authSucceeded, this, &TalvoraPlugin::onAuthSucceeded);
	connect(client, &WSClient::ttsAudioReady, this, &TalvoraPlugin::onTtsAudioReady);
	connect(client, &WSClient::captionUpdated, this, &TalvoraPlugin::onCaptionUpdated);
	connect(client, &WSClient::captionCleared, this, &TalvoraPlugin::onCaptionCleared);
	connect(client, &WSClient::stateChanged, this, &TalvoraPlugin::onWsStateChanged);
	connect(client, &WSClient::errorOccurred, this, &TalvoraPlugin::onWsError);
	connect(client, &WSClient::transcriptInterim, this, &TalvoraPlugin::onTranscriptInterim);
	connect(client, &WSClient::limitWarning, this, &TalvoraPlugin::limitWarning);
	connect(client, &WSClient::limitReached, this, &TalvoraPlugin::limitReached);
	connect(client, &WSClient::sessionEnded, this, &TalvoraPlugin::onSessionEnded);
}

void TalvoraPlugin::createDock()
{
	dock = new PluginDock(this, nullptr);
	dock->show();
	if (settings.dockVisible) {
		QTimer::singleShot(0, dock, &PluginDock::bringOnScreen);
	}
}

void TalvoraPlugin::shutdown()
{
	if (!initialized) {
		return;
	}
	shuttingDown = true;
	sceneWatcher.reset();

	if (dock) {
		settings.dockVisible = dock->isVisible();
		obs_frontend_remove_dock(PluginDock::kId);
		dock = nullptr;
	}
	saveConfig();
	stopSession();
	detachAudioCapture();

	if (captionManager) {
		captionManager->abandonAll();
		delete std::exchange(captionManager, nullptr);
	}
	{
		const std::unique_lock guard(dubbedMutex);
		for (auto &[code, source] : dubbedSources) {
			source->forgetSource();
		}
		dubbedSources.clear();
	}

	if (stopClientThread()) {
		delete wsClient.exchange(nullptr);
	}
	initialized = false;
	talvora_log(LOG_INFO, "Talvora plugin shut down");
}

bool TalvoraPlugin::stopClientThread()
{
	if (!wsThread) {
		return true;
	}
	wsThread->quit();
	if (!wsThread->wait(kThreadStopDeadline)) {
		talvora_log(LOG_WARNING, "Talvora: WS thread did not stop in 5 s — detaching (leak to avoid UB)");
		wsThread->disconnect();
		// A running thread must not be deleted, not even as the child of this object, nor what lives on it.
		wsThread->setParent(nullptr);
		wsThread = nullptr;
		wsClient = nullptr;
		return false;
	}
	delete std::exchange(wsThread, nullptr);
	return true;
}

WsState TalvoraPlugin::wsState() const
{
	const WSClient *client = wsClient;
	return client ? client->state() : WsState::Disconnected;
}

// Languages

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

void TalvoraPlugin::sendConfigUpdate()
{
	// Sent in a session; the client keeps it for the next one that begins by itself.
	if (wsClient) {
		QMetaObject::invokeMethod(wsClient, "updateConfig", Qt::QueuedConnection,
					  Q_ARG(QJsonArray, buildTargetLanguagesJson()),
					  Q_ARG(QString, settings.captionMode));
	}
}

// Configuration file

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
	if (!wsClient) {
		talvora_log(LOG_ERROR, "Talvora: WSClient not initialized");
		return;
	}
	talvora_log(LOG_INFO, "Talvora: connecting to %s (wsThread running: %s)", kServiceEndpoint,
		    wsThread && wsThread->isRunning() ? "YES" : "NO");
	flushDubbedSources();
	// What a session needs may have been removed, or may have appeared, since it was last looked for.
	restoreDubbedSources();
	updateCaptionSources();
	restoreAudioCapture();

	const bool queued = QMetaObject::invokeMethod(
		wsClient, "connectToServer", Qt::QueuedConnection, Q_ARG(QString, settings.apiKey),
		Q_ARG(QString, QString::fromUtf8(kServiceEndpoint)), Q_ARG(QString, settings.sourceLanguage),
		Q_ARG(QJsonArray, buildTargetLanguagesJson()), Q_ARG(QString, settings.captionMode));
	talvora_log(LOG_INFO, "Talvora: invokeMethod(connectToServer) = %s", queued ? "OK" : "FAILED");
}

void TalvoraPlugin::stopSession()
{
	if (!wsClient) {
		return;
	}
	talvora_log(LOG_INFO, "Talvora: disconnecting...");
	QMetaObject::invokeMethod(wsClient, "disconnectFromServer", Qt::QueuedConnection);
}

void TalvoraPlugin::setApiKey(const QString &key)
{
	settings.apiKey = key;
	saveConfig();
}

void TalvoraPlugin::onWsStateChanged(WsState newState)
{
	talvora_log(LOG_INFO, "Talvora: WS state → %d", static_cast<int>(newState));
	Q_EMIT wsStateChanged(newState);
	// A lost connection also takes along the end of a clip that was being received, which would block the next
	// ones.
	if (newState == WsState::Disconnected || newState == WsState::Reconnecting) {
		flushDubbedSources();
	}
}

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
	if (captionManager) {
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
	Q_EMIT transcriptUpdated(text);
}

void TalvoraPlugin::onTtsAudioReady(const QString &language, int clipId, const QByteArray &pcmData,
				    int sourceSampleRate)
{
	const std::shared_lock guard(dubbedMutex);
	const auto found = dubbedSources.find(language);
	if (found == dubbedSources.end()) {
		return;
	}
	DubbedSource &source = *found->second;
	if (pcmData.isEmpty()) {
		source.ttsClipEnded(clipId);
		return;
	}
	if (pcmData.size() % 2 != 0) {
		talvora_log(LOG_WARNING, "Talvora: odd TTS PCM size %d for '%s', truncating last byte",
			    static_cast<int>(pcmData.size()), language.toUtf8().constData());
	}
	const qsizetype count = pcmData.size() / 2;
	std::vector<int16_t> samples(static_cast<size_t>(count));
	if (count > 0) {
		qFromLittleEndian<qint16>(pcmData.constData(), count, samples.data());
	}
	source.pushTtsAudio(clipId, samples.data(), samples.size(), sourceSampleRate);
}

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

// Outputs

void TalvoraPlugin::updateDubbedSources()
{
	const QStringList languages = dubbingLanguages();
	const auto isWanted = [&](const QString &code) {
		return languages.contains(code) && code != settings.sourceLanguage;
	};
	const QStringList dubbed = dubbedLanguages();
	for (const QString &code : dubbed) {
		if (!isWanted(code)) {
			talvora_log(LOG_INFO, "Talvora: removing dubbed source for '%s'", code.toUtf8().constData());
			takeDub(code);
		}
	}
	for (const QString &code : languages) {
		if (isWanted(code) && !dubbedSources.contains(code)) {
			DubbedSources made;
			made.emplace(code, createDubbedSource(code));
			putDub(made.extract(made.begin()));
		}
	}
	recheckAudioCapture();
}

void TalvoraPlugin::restoreDubbedSources()
{
	const QStringList dubbed = dubbedLanguages();
	for (const QString &code : dubbed) {
		restoreDub(code);
	}
	recheckAudioCapture();
}

void TalvoraPlugin::restoreDub(const QString &code)
{
	if (dubbedSources.at(code)->hasSource()) {
		return;
	}
	DubbedSources::node_type dub = takeDub(code);
	dub.mapped()->restoreSource();
	putDub(std::move(dub));
}

QStringList TalvoraPlugin::dubbedLanguages() const
{
	QStringList codes;
	for (const auto &[code, source] : dubbedSources) {
		codes.append(code);
	}
	return codes;
}

TalvoraPlugin::DubbedSources::node_type TalvoraPlugin::takeDub(const QString &code)
{
	const std::unique_lock guard(dubbedMutex);
	return dubbedSources.extract(code);
}

void TalvoraPlugin::putDub(DubbedSources::node_type dub)
{
	const std::unique_lock guard(dubbedMutex);
	dubbedSources.insert(std::move(dub));
	ignoreOwnOutput();
}

bool TalvoraPlugin::isOwnOutput(const obs_source_t *source) const
{
	return std::any_of(dubbedSources.begin(), dubbedSources.end(),
			   [source](const auto &entry) { return entry.second->publishes(source); });
}

void TalvoraPlugin::ignoreOwnOutput()
{
	if (isOwnOutput(capturedSource)) {
		capturedSource = nullptr;
	}
}

void TalvoraPlugin::recheckAudioCapture()
{
	if (audioSourceRef && !capturedSource) {
		attachAudioCapture();
	}
}

std::unique_ptr<DubbedSource> TalvoraPlugin::createDubbedSource(const QString &code)
{
	const QString name = displayNameForCode(code);
	talvora_log(LOG_INFO, "Talvora: creating dubbed source for '%s' (%s)", code.toUtf8().constData(),
		    name.toUtf8().constData());

	auto source = std::make_unique<DubbedSource>(code.toStdString(), name.toStdString());
	source->setDuckingLevel(settings.duckingLevel);
	source->setTtsLevel(settings.ttsVolume);
	source->setMuteOriginal(settings.muteOriginal);
	// Called on the audio thread: the code is kept in its final form, so that posting is all that is left to do.
	source->onClipStarted = [this, code](const std::string &, int clipId) {
		QMetaObject::invokeMethod(
			this, [this, code, clipId] { onClipStarted(code, clipId); }, Qt::QueuedConnection);
	};
	source->onClipEnded = [this, code](const std::string &, int clipId) {
		QMetaObject::invokeMethod(
			this, [this, code, clipId] { onClipEnded(code, clipId); }, Qt::QueuedConnection);
	};
	return source;
}

template <typename Action> void TalvoraPlugin::forEachDubbedSource(Action action)
{
	const std::shared_lock guard(dubbedMutex);
	for (auto &[code, source] : dubbedSources) {
		action(*source);
	}
}

void TalvoraPlugin::flushDubbedSources()
{
	forEachDubbedSource([](DubbedSource &source) { source.flush(); });
}

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
	if (!languages.isEmpty()) {
		reportMissingBrowserSource();
	}
}

void TalvoraPlugin::reportMissingBrowserSource()
{
	if (missingBrowserSourceReported || hasBrowserSource()) {
		return;
	}
	missingBrowserSourceReported = true;
	talvora_log(LOG_WARNING,
		    "Talvora: this OBS has no browser source, so captions cannot be shown. OBS from Flathub "
		    "or from the OBS Project's Ubuntu PPA has it. Dubs and the transcript work without it.");
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
	forEachDubbedSource([level](DubbedSource &source) { source.setDuckingLevel(level); });
	saveConfig();
}

void TalvoraPlugin::setTtsVolume(float volume)
{
	settings.ttsVolume = volume;
	forEachDubbedSource([volume](DubbedSource &source) { source.setTtsLevel(volume); });
	saveConfig();
}

void TalvoraPlugin::setMuteOriginal(bool mute)
{
	settings.muteOriginal = mute;
	forEachDubbedSource([mute](DubbedSource &source) { source.setMuteOriginal(mute); });
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
	// A session's answer may bring the languages down in the middle of OBS's clearing.
	if (!sceneWatcher || !sceneWatcher->isClearing()) {
		updateDubbedSources();
		updateCaptionSources();
	}
}

void TalvoraPlugin::restoreOutputs()
{
	updateDubbedSources();
	restoreDubbedSources();
	updateCaptionSources();
	restoreAudioCapture();
	Q_EMIT audioSourcesChanged();
}

void TalvoraPlugin::onSourceCreated(const QString &name)
{
	takeUpOutput(name);
	if (name == settings.audioSource) {
		restoreAudioCapture();
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
	const auto named = std::find_if(dubbedSources.begin(), dubbedSources.end(), [&name](const auto &entry) {
		return QString::fromStdString(entry.second->name()) == name;
	});
	if (named != dubbedSources.end()) {
		const QString code = named->first;
		restoreDub(code);
		recheckAudioCapture();
	}
}

void TalvoraPlugin::onSourceRemoved()
{
	if (audioSourceRef && !isCapturing()) {
		detachAudioCapture();
	}
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
		restoreAudioCapture();
	}
	Q_EMIT audioSourcesChanged();
}

// Audio capture

void TalvoraPlugin::attachAudioCapture()
{
	detachAudioCapture();
	if (settings.audioSource.isEmpty()) {
		return;
	}

	const QByteArray name = settings.audioSource.toUtf8();
	const OBSSourceAutoRelease source = obs_get_source_by_name(name);
	if (!source || obs_source_removed(source)) {
		talvora_log(LOG_WARNING, "Talvora: audio source '%s' not found", name.constData());
		return;
	}
	bool ownOutput;
	{
		const std::shared_lock guard(dubbedMutex);
		ownOutput = isOwnOutput(source);
	}
	// A dub outputs from within the capture callback, so that capturing one would wait for itself.
	if (ownOutput || !isCapturable(source)) {
		talvora_log(LOG_WARNING, "Talvora: source '%s' (type=%s) does not produce capturable audio, skipping",
			    name.constData(), obs_source_get_id(source));
		return;
	}

	{
		// A source that is just being destroyed may still be inside the callback; OBS can no longer be asked to
		// take the callback off it. Behind this lock it is done.
		const std::unique_lock guard(dubbedMutex);
		captureConverter.reset();
		captureSampleRate = kExpectedSampleRate;
		captureChannels = 2;
		obs_audio_info info;
		if (obs_get_audio_info(&info)) {
			captureSampleRate = info.samples_per_sec;
		}
		capturedSource = source;
	}
	obs_source_add_audio_capture_callback(source, audioCaptureCallback, this);
	audioSourceRef = obs_source_get_weak_source(source);
	attachedName = name;
	talvora_log(LOG_INFO, "Talvora: attached audio capture to source '%s'", name.constData());
}

void TalvoraPlugin::detachAudioCapture()
{
	if (!audioSourceRef) {
		return;
	}
	const OBSSourceAutoRelease source = obs_weak_source_get_source(audioSourceRef);
	capturedSource = nullptr;
	if (source) {
		obs_source_remove_audio_capture_callback(source, audioCaptureCallback, this);
		talvora_log(LOG_INFO, "Talvora: detached audio capture from '%s'", obs_source_get_name(source));
	} else {
		talvora_log(LOG_INFO, "Talvora: audio source '%s' was already destroyed, skipping detach",
			    attachedName.constData());
	}
	obs_weak_source_release(std::exchange(audioSourceRef, nullptr));
}

bool TalvoraPlugin::isCapturing() const
{
	const OBSSourceAutoRelease source = obs_weak_source_get_source(audioSourceRef);
	return source && !obs_source_removed(source) &&
	       settings.audioSource == QString::fromUtf8(obs_source_get_name(source));
}

void TalvoraPlugin::restoreAudioCapture()
{
	if (!settings.audioSource.isEmpty() && !isCapturing()) {
		attachAudioCapture();
	}
}

void TalvoraPlugin::audioCaptureCallback(void *param, obs_source_t *source, const audio_data *audio, bool muted)
{
	auto *plugin = static_cast<TalvoraPlugin *>(param);
	if (plugin->shuttingDown || !audio || audio->frames == 0 || muted || !audio->data[0]) {
		return;
	}
	plugin->captureChunk(source, *audio);
}

void TalvoraPlugin::captureChunk(obs_source_t *source, const audio_data &audio)
{
	const std::shared_lock guard(dubbedMutex);
	if (shuttingDown || source != capturedSource) {
		return;
	}

	const auto *left = reinterpret_cast<const float *>(audio.data[0]);
	const auto *right = audio.data[1] ? reinterpret_cast<const float *>(audio.data[1]) : left;
	captureChannels.store(audio.data[1] ? 2 : 1, std::memory_order_relaxed);

	const uint32_t rate = captureSampleRate.load(std::memory_order_relaxed);
	const auto feedDubbedSources = [&] {
		for (auto &[code, dubbed] : dubbedSources) {
			dubbed->pushOriginalAudio(left, right, audio.frames, rate, audio.timestamp);
		}
	};

	if (rate != kExpectedSampleRate) {
		static std::atomic_flag warned;
		if (!warned.test_and_set(std::memory_order_relaxed)) {
			talvora_log(LOG_WARNING,
				    "Talvora: audio sample rate is %u Hz (expected 48000). Downsampling will produce "
				    "incorrect output. Change OBS audio settings to 48 kHz.",
				    rate);
		}
		feedDubbedSources();
		return;
	}

	const std::span<const int16_t> speech = captureConverter.convert(left, right, audio.frames);
	feedDubbedSources();
	WSClient *client = wsClient.load(std::memory_order_acquire);
	if (!speech.empty() && client) {
		client->enqueueAudio(speech.data(), speech.size());
	}
}
