// SPDX-License-Identifier: GPL-2.0-or-later
#include "captions/caption-manager.h"

#include "captions/caption-css.h"
#include "captions/caption-page.h"
#include "obs/browser-source.h"
#include "obs/source-name.h"
#include "plugin-support.h"

#include <QLocale>
#include <QStringBuilder>
#include <QTimer>

#include <graphics/vec2.h>
#include <obs-frontend-api.h>
#include <obs.hpp>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <utility>
#include <vector>

namespace {

constexpr int kMinDisplayMs = 1800;
constexpr int kMaxDisplayMs = 8000;
/** How long a caption stays up after it was spoken. */
constexpr int kAfterSpeechMs = 500;
constexpr double kMsPerCharacter = 75.0;
constexpr int kClearAfterLastCaptionMs = 2000;
constexpr int kClearAfterClipMs = 1500;
constexpr int kLoggedCharacters = 50;
constexpr uint32_t kFallbackSourceWidth = 1536;
constexpr uint32_t kSourceHeight = 240;

/** `ms` as a whole number within the bounds of a display time; any double is allowed. */
int toDisplayMs(double ms)
{
	return static_cast<int>(std::clamp(std::trunc(ms), double{kMinDisplayMs}, double{kMaxDisplayMs}));
}

/** Size of the canvas in pixels; 0 by 0 while OBS has no video. */
obs_video_info canvas()
{
	obs_video_info info = {};
	if (!obs_get_video_info(&info)) {
		info = {};
	}
	return info;
}

void discardTimer(QTimer *&timer)
{
	timer->stop();
	timer->deleteLater();
	timer = nullptr;
}

void discardTimers(LanguageCaptionState &state)
{
	discardTimer(state.displayTimer);
	discardTimer(state.clearTimer);
}

bool isBrowserSource(obs_source_t *source)
{
	return std::strcmp(obs_source_get_id(source), kBrowserSourceId) == 0;
}

/**
 * Runs `update` with the scene locked. An item that is found or added comes without a reference, so without the lock
 * another thread could remove it while it is used.
 */
template <typename Update> void updateScene(obs_scene_t *scene, Update update)
{
	obs_scene_atomic_update(
		scene, [](void *data, obs_scene_t *locked) { (*static_cast<Update *>(data))(locked); }, &update);
}

/** References to all scenes: to be looked into only when OBS no longer holds the lock of its list. */
std::vector<OBSSourceAutoRelease> allScenes()
{
	std::vector<OBSSourceAutoRelease> scenes;
	// obs_enum_scenes() would leave out the scenes of other canvases and those that modules keep to themselves.
	obs_enum_all_sources(
		[](void *list, obs_source_t *source) {
			if (obs_source_is_scene(source) && !obs_source_removed(source)) {
				static_cast<decltype(scenes) *>(list)->emplace_back(obs_source_get_ref(source));
			}
			return true;
		},
		&scenes);
	return scenes;
}

bool isInAScene(obs_source_t *source)
{
	const char *name = obs_source_get_name(source);
	bool found = false;
	for (const OBSSourceAutoRelease &scene : allScenes()) {
		if (scene && !found) {
			updateScene(obs_scene_from_source(scene), [&](obs_scene_t *locked) {
				obs_sceneitem_t *item = obs_scene_find_source_recursive(locked, name);
				found = item && obs_sceneitem_get_source(item) == source;
			});
		}
	}
	return found;
}

/**
 * Puts the source's item with its bottom centre at `position`, adding it if need be. False when that fails, and for a
 * source that is in a group: its place there is the user's, and a second item would show every caption twice.
 */
bool placeInScene(obs_scene_t *scene, obs_source_t *source, const vec2 &position)
{
	const char *name = obs_source_get_name(source);
	obs_sceneitem_t *item = obs_scene_find_source(scene, name);
	if (!item && obs_scene_find_source_recursive(scene, name)) {
		talvora_log(LOG_INFO, "CaptionManager: left '%s' in its group", name);
		return false;
	}
	if (!item) {
		item = obs_scene_add(scene, source);
	}
	if (!item) {
		return false;
	}
	obs_sceneitem_set_alignment(item, OBS_ALIGN_BOTTOM);
	obs_sceneitem_set_pos(item, &position);
	return true;
}

void removeFromCurrentScene(const char *sourceName)
{
	const OBSSourceAutoRelease sceneSource = obs_frontend_get_current_scene();
	obs_scene_t *scene = obs_scene_from_source(sceneSource);
	if (!scene) {
		return;
	}
	OBSSceneItem item;
	updateScene(scene, [&](obs_scene_t *locked) { item = obs_scene_find_source(locked, sourceName); });
	// Without the lock: OBS asks before it takes it whether an item has been removed, so one who removes the item
	// on another thread and has to wait for the lock would remove it a second time, and crash.
	obs_sceneitem_remove(item);
}

/**
 * The source the captions can go on with, or null. Takes a source of another type out of the current scene.
 */
OBSSourceAutoRelease findBrowserSource(const char *name)
{
	OBSSourceAutoRelease found = obs_get_source_by_name(name);
	if (!found || obs_source_removed(found)) {
		return nullptr;
	}
	if (isBrowserSource(found)) {
		return found;
	}
	talvora_log(LOG_INFO, "CaptionManager: migrating source '%s' from %s to %s", name, obs_source_get_id(found),
		    kBrowserSourceId);
	found = nullptr;
	removeFromCurrentScene(name);
	return nullptr;
}

/** The settings every caption source has. */
OBSDataAutoRelease pageSettings(const QByteArray &pagePath, const QByteArray &css)
{
	OBSDataAutoRelease settings = obs_data_create();
	obs_data_set_bool(settings, "is_local_file", true);
	obs_data_set_string(settings, "local_file", pagePath.constData());
	obs_data_set_string(settings, "css", css.constData());
	return settings;
}

OBSSourceAutoRelease createBrowserSource(const char *name, const QByteArray &pagePath, const QByteArray &css)
{
	const uint32_t baseWidth = canvas().base_width;
	const OBSDataAutoRelease settings = pageSettings(pagePath, css);
	obs_data_set_int(settings, "width", baseWidth ? static_cast<uint32_t>(baseWidth * 0.8) : kFallbackSourceWidth);
	obs_data_set_int(settings, "height", kSourceHeight);
	return obs_source_create(kBrowserSourceId, name, settings, nullptr);
}

// A browser source starts its browser anew at an update, so settings that it has already are not sent again.

void updateCss(obs_source_t *source, const QByteArray &css)
{
	const OBSDataAutoRelease current = obs_source_get_settings(source);
	if (css == obs_data_get_string(current, "css")) {
		return;
	}
	const OBSDataAutoRelease settings = obs_data_create();
	obs_data_set_string(settings, "css", css.constData());
	obs_source_update(source, settings);
}

void updatePageSettings(obs_source_t *source, const QByteArray &pagePath, const QByteArray &css)
{
	const OBSDataAutoRelease current = obs_source_get_settings(source);
	if (obs_data_get_bool(current, "is_local_file") && pagePath == obs_data_get_string(current, "local_file") &&
	    css == obs_data_get_string(current, "css")) {
		return;
	}
	const OBSDataAutoRelease settings = pageSettings(pagePath, css);
	obs_source_update(source, settings);
}

} // namespace

CaptionManager::CaptionManager(QObject *parent) : QObject(parent), styleRules(captionStyleRules({})) {}

CaptionManager::~CaptionManager()
{
	clearAll();
}

// The languages

void CaptionManager::setLanguages(const QList<QString> &languages, const QMap<QString, QString> &displayNames)
{
	for (auto it = states.begin(); it != states.end();) {
		if (languages.contains(it->first)) {
			++it;
			continue;
		}
		if (!it->second.currentText.isEmpty() && hasSource(it->second)) {
			// The source stays in the scene, and nobody would take the text away any more.
			updateObsText(it->second, QString());
		}
		destroySourceForLanguage(it->second);
		it = states.erase(it);
	}

	for (const QString &language : languages) {
		if (!findState(language)) {
			addState(language, displayNames.value(language, language));
		}
	}
}

void CaptionManager::restoreSources()
{
	for (auto &[language, state] : states) {
		if (!hasSource(state)) {
			renewSource(state);
		}
	}
}

void CaptionManager::placeMissing()
{
	for (auto &[language, state] : states) {
		const OBSSourceAutoRelease source = state.source.getRef();
		if (source) {
			placeLater(QString::fromUtf8(obs_source_get_name(source)), Place::IfMissing);
		}
	}
}

void CaptionManager::takeUpSource(const QString &name)
{
	for (auto &[language, state] : states) {
		if (state.sourceName == name && !hasSource(state)) {
			renewSource(state);
		}
	}
}

void CaptionManager::renewSource(LanguageCaptionState &state)
{
	state.currentText.clear();
	createSourceForLanguage(state, Place::IfMissing);
}

bool CaptionManager::hasSource(const LanguageCaptionState &state)
{
	const std::lock_guard guard(sourceLock);
	return state.source.get() != nullptr;
}

void CaptionManager::addState(const QString &language, const QString &displayName)
{
	LanguageCaptionState &state = states.try_emplace(language, sourceLock).first->second;
	state.language = language;
	state.displayName = displayName;
	state.sourceName = QStringLiteral("Talvora Captions \u2014 %1").arg(displayName);
	state.displayTimer = createTimer(language, &CaptionManager::onDisplayTimerTick);
	state.clearTimer = createTimer(language, &CaptionManager::onClearTimerTick);
	createSourceForLanguage(state, Place::Always);
	talvora_log(LOG_INFO, "CaptionManager: added state for '%s'", language.toUtf8().constData());
}

QTimer *CaptionManager::createTimer(const QString &language, void (CaptionManager::*tick)(const QString &))
{
	auto *timer = new QTimer(this);
	timer->setSingleShot(true);
	timer->setTimerType(Qt::PreciseTimer);
	connect(timer, &QTimer::timeout, this, [this, language, tick] { (this->*tick)(language); });
	return timer;
}

LanguageCaptionState *CaptionManager::findState(const QString &language)
{
	const auto it = states.find(language);
	return it == states.end() ? nullptr : &it->second;
}

void CaptionManager::abandonAll()
{
	for (auto &[language, state] : states) {
		discardTimers(state);
		const OBSSourceAutoRelease source = state.source.getRef();
		if (source) {
			obs_source_remove(source);
		}
		state.source.release();
	}
	states.clear();
}

void CaptionManager::clearAll()
{
	for (auto &[language, state] : states) {
		destroySourceForLanguage(state);
	}
	states.clear();
}

// The queue

void CaptionManager::onCaption(const QString &language, const QString &text, double durationSec, int clipId,
			       bool syncWithAudio)
{
	LanguageCaptionState *state = findState(language);
	if (!state) {
		talvora_log(LOG_WARNING, "CaptionManager: no state for language '%s' (have: %zu states)",
			    language.toUtf8().constData(), states.size());
		return;
	}
	talvora_log(LOG_INFO, "CaptionManager: caption for '%s': \"%s\"", language.toUtf8().constData(),
		    QStringView(text).left(kLoggedCharacters).toUtf8().constData());
	enqueueCaption(*state, text, durationSec, clipId, syncWithAudio);
}

void CaptionManager::enqueueCaption(LanguageCaptionState &state, const QString &text, double durationSec, int clipId,
				    bool syncWithAudio)
{
	const int displayMs = durationSec > 0 ? toDisplayMs(std::trunc(durationSec * 1000) + kAfterSpeechMs)
					      : calcDisplayMs(text, readingSpeed);
	while (state.queue.size() >= state.maxQueue) {
		state.queue.removeFirst();
	}
	state.queue.append({text, displayMs, clipId, syncWithAudio});

	if (!syncWithAudio && !state.displayTimer->isActive()) {
		talvora_log(LOG_INFO, "CaptionManager: advancing queue for '%s' (queue=%zu) [timer fallback]",
			    state.language.toUtf8().constData(), static_cast<size_t>(state.queue.size()));
		advanceQueue(state);
	}
}

int CaptionManager::calcDisplayMs(const QString &text, float speed)
{
	const double factor = speed > 0 ? double{speed} : 1.0;
	return toDisplayMs(static_cast<double>(text.size()) * kMsPerCharacter / factor);
}

void CaptionManager::advanceQueue(LanguageCaptionState &state)
{
	if (state.queue.isEmpty()) {
		state.clearTimer->start(kClearAfterLastCaptionMs);
		return;
	}
	if (state.queue.first().syncWithAudio) {
		return;
	}
	state.clearTimer->stop();
	const CaptionEntry entry = state.queue.takeFirst();
	updateObsText(state, entry.text);
	state.displayTimer->start(entry.displayMs);
}

void CaptionManager::onDisplayTimerTick(const QString &language)
{
	if (LanguageCaptionState *state = findState(language)) {
		advanceQueue(*state);
		// The next one may wait for its clip.
		blankUntimedCaption(*state, kClearAfterLastCaptionMs);
	}
}

void CaptionManager::onClearTimerTick(const QString &language)
{
	LanguageCaptionState *state = findState(language);
	if (!state) {
		return;
	}
	// Captions that waited for their clips behind the one that goes now: no timer runs that would show them.
	if (!state->displayTimer->isActive() && !state->queue.isEmpty() && !state->queue.first().syncWithAudio) {
		advanceQueue(*state);
	} else {
		updateObsText(*state, QString());
	}
}

void CaptionManager::onClipStarted(const QString &language, int clipId)
{
	LanguageCaptionState *state = findState(language);
	if (!state) {
		return;
	}
	QList<CaptionEntry> &queue = state->queue;
	const auto match = std::find_if(queue.cbegin(), queue.cend(),
					[clipId](const CaptionEntry &entry) { return entry.clipId == clipId; });
	if (match == queue.cend()) {
		return;
	}
	// What waited before it was meant to be over by now.
	const QString text = match->text;
	queue.erase(queue.cbegin(), match + 1);
	updateObsText(*state, text);
	state->displayTimer->stop();
	state->clearTimer->stop();
}

void CaptionManager::onClipEnded(const QString &language, int)
{
	// Whichever clip it was: unless another caption is shown before, there is nothing left to read.
	if (LanguageCaptionState *state = findState(language)) {
		state->clearTimer->start(kClearAfterClipMs);
	}
}

void CaptionManager::onClipLost(const QString &language)
{
	if (const LanguageCaptionState *state = findState(language)) {
		blankUntimedCaption(*state, kClearAfterClipMs);
	}
}

void CaptionManager::endSession()
{
	for (auto &[language, state] : states) {
		state.queue.clear();
		state.displayTimer->stop();
		blankUntimedCaption(state, kClearAfterLastCaptionMs);
	}
}

void CaptionManager::blankUntimedCaption(const LanguageCaptionState &state, int ms)
{
	if (!state.currentText.isEmpty() && !state.displayTimer->isActive() && !state.clearTimer->isActive()) {
		state.clearTimer->start(ms);
	}
}

void CaptionManager::onCaptionCleared(const QString &language)
{
	if (LanguageCaptionState *state = findState(language)) {
		state->queue.clear();
		state->displayTimer->stop();
		state->clearTimer->stop();
		updateObsText(*state, QString());
	}
}

// The sources

void CaptionManager::createSourceForLanguage(LanguageCaptionState &state, Place place)
{
	updateBrowserSourceFiles(state, QString());
	const QByteArray name = state.sourceName.toUtf8();
	const QByteArray pagePath = state.pagePath.toUtf8();
	const QByteArray css = generateCss(state.language).toUtf8();

	OBSSourceAutoRelease source = findBrowserSource(name.constData());
	if (source) {
		talvora_log(LOG_INFO, "CaptionManager: reattached to existing source '%s'", name.constData());
		updatePageSettings(source, pagePath, css);
	} else {
		freeSourceName(name.constData());
		source = createBrowserSource(name.constData(), pagePath, css);
		if (!source) {
			talvora_log(LOG_WARNING, "CaptionManager: failed to create source '%s'", name.constData());
			return;
		}
		talvora_log(LOG_INFO, "CaptionManager: created source '%s'", name.constData());
	}
	state.source.adopt(obs_source_get_ref(source));
	placeLater(state.sourceName, place);
}

void CaptionManager::placeLater(const QString &sourceName, Place place)
{
	QTimer::singleShot(kPlacementDelayMs, this, [this, sourceName, place] {
		const OBSSourceAutoRelease source = obs_get_source_by_name(sourceName.toUtf8().constData());
		// A removed source can be found by name until the last reference is gone, but not be placed.
		if (!source || obs_source_removed(source)) {
			return;
		}
		const bool wanted = place == Place::Always || (!obs_source_showing(source) && !isInAScene(source));
		if (wanted && !autoPlaceCaptionSource(source)) {
			unplaced.insert(sourceName);
		}
	});
}

void CaptionManager::placeUnplaced()
{
	const QSet<QString> waiting = std::exchange(unplaced, {});
	for (const QString &sourceName : waiting) {
		placeLater(sourceName, Place::IfMissing);
	}
}

bool CaptionManager::autoPlaceCaptionSource(obs_source_t *source)
{
	const OBSSourceAutoRelease sceneSource = obs_frontend_get_current_scene();
	obs_scene_t *scene = obs_scene_from_source(sceneSource);
	if (!scene) {
		return false;
	}

	const obs_video_info video = canvas();
	vec2 position = {};
	position.x = video.base_width ? static_cast<float>(video.base_width) * 0.5f : 960.0f;
	position.y = video.base_height ? static_cast<float>(video.base_height) - 60.0f : 1020.0f;

	bool placed = false;
	// Who is told of the new item may want the graphics context, which everybody takes before a scene's lock.
	obs_enter_graphics();
	updateScene(scene, [&](obs_scene_t *locked) { placed = placeInScene(locked, source, position); });
	obs_leave_graphics();
	if (placed) {
		talvora_log(LOG_INFO, "CaptionManager: placed '%s' at bottom-centre (%.0f, %.0f)",
			    obs_source_get_name(source), static_cast<double>(position.x),
			    static_cast<double>(position.y));
	}
	return true;
}

void CaptionManager::updateObsText(LanguageCaptionState &state, const QString &text)
{
	const OBSSourceAutoRelease source = state.source.getRef();
	if (!source) {
		talvora_log(LOG_WARNING, "CaptionManager: updateObsText for '%s' but source is null",
			    state.language.toUtf8().constData());
		return;
	}
	state.currentText = text;
	updateObsSettings(state, source);
}

void CaptionManager::updateObsSettings(LanguageCaptionState &state, obs_source_t *source)
{
	// OBS loads the page anew whenever the CSS changes, and somebody may have cleaned the temporary directory.
	const QString loaded = state.pagePath;
	updateBrowserSourceFiles(state, state.currentText);
	const QByteArray css = generateCss(state.language).toUtf8();
	if (state.pagePath == loaded) {
		updateCss(source, css);
	} else {
		updatePageSettings(source, state.pagePath.toUtf8(), css);
	}
}

void CaptionManager::setStyle(const QString &alignment, const QColor &textColor, const QColor &bgColor, int opacity,
			      const QFont &font)
{
	styleRules = captionStyleRules({alignment, textColor, bgColor, opacity, font});
	for (auto &[language, state] : states) {
		const OBSSourceAutoRelease source = state.source.getRef();
		if (source) {
			updateObsSettings(state, source);
		}
	}
}

void CaptionManager::destroySourceForLanguage(LanguageCaptionState &state)
{
	discardTimers(state);
	state.source.release();
}

// The page

QString CaptionManager::getBrowserHtmlPath(const QString &language) const
{
	const auto it = states.find(language);
	return it == states.end() ? captionPagePath(language) : it->second.pagePath;
}

QString CaptionManager::getBrowserDataPath(const QString &language) const
{
	return captionDataPath(language);
}

void CaptionManager::updateBrowserSourceFiles(LanguageCaptionState &state, const QString &)
{
	state.pagePath = provideCaptionPage(state.language);
}

QString CaptionManager::generateCss(const QString &language) const
{
	const auto it = states.find(language);
	return styleRules % captionTextRules(it == states.end() ? QString() : it->second.currentText,
					     QLocale(language).textDirection());
}
