// SPDX-License-Identifier: GPL-2.0-or-later
#include "captions/caption-manager.h"

#include "captions/caption-css.h"
#include "captions/caption-page.h"
#include "captions/caption-source.h"
#include "obs/source-name.h"
#include "plugin-support.h"

#include <QLocale>
#include <QStringBuilder>
#include <QTimer>

#include <obs.hpp>

#include <algorithm>
#include <cmath>
#include <utility>

namespace {

constexpr int kMinDisplayMs = 1800;
constexpr int kMaxDisplayMs = 8000;
/** How long a caption stays up after it was spoken. */
constexpr int kAfterSpeechMs = 500;
constexpr double kMsPerCharacter = 75.0;
constexpr int kClearAfterLastCaptionMs = 2000;
constexpr int kClearAfterClipMs = 1500;
constexpr int kLoggedCharacters = 50;

/** `ms` as a whole number within the bounds of a display time; any double is allowed. */
int toDisplayMs(double ms)
{
	return static_cast<int>(std::clamp(std::trunc(ms), double{kMinDisplayMs}, double{kMaxDisplayMs}));
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
			// The source stays in the scene, and no timer would blank it any more.
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
			restoreSource(state);
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
			restoreSource(state);
		}
	}
}

void CaptionManager::restoreSource(LanguageCaptionState &state)
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
		// advanceQueue() shows nothing when the next caption waits for its clip.
		blankUntimedCaption(*state, kClearAfterLastCaptionMs);
	}
}

void CaptionManager::onClearTimerTick(const QString &language)
{
	LanguageCaptionState *state = findState(language);
	if (!state) {
		return;
	}
	// Captions that were queued while a clip was played: no timer runs that would show them.
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
	// Captions queued before it are late, and are dropped with it.
	const QString text = match->text;
	queue.erase(queue.cbegin(), match + 1);
	updateObsText(*state, text);
	state->displayTimer->stop();
	state->clearTimer->stop();
}

void CaptionManager::onClipEnded(const QString &language, int)
{
	// Whichever clip it was: the caption that is up goes, unless another one is shown before.
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

	OBSSourceAutoRelease source = findCaptionSource(name.constData());
	if (source) {
		talvora_log(LOG_INFO, "CaptionManager: reattached to existing source '%s'", name.constData());
		updateCaptionPage(source, pagePath, css);
	} else {
		freeSourceName(name.constData());
		source = createCaptionSource(name.constData(), pagePath, css);
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
		// obs_get_source_by_name() finds a removed source until its last reference is gone.
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
	// OBS reloads the page whenever the CSS changes, and the file may have been cleaned out of the temporary
	// directory.
	const QString loaded = state.pagePath;
	updateBrowserSourceFiles(state, state.currentText);
	const QByteArray css = generateCss(state.language).toUtf8();
	if (state.pagePath == loaded) {
		updateCaptionCss(source, css);
	} else {
		updateCaptionPage(source, state.pagePath.toUtf8(), css);
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
