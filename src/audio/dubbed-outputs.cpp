// SPDX-License-Identifier: GPL-2.0-or-later
#include "audio/dubbed-outputs.h"

#include "plugin-support.h"
#include "settings/language-catalogue.h"
#include "settings/settings.h"

#include <QtEndian>

#include <obs.hpp>

#include <algorithm>
#include <chrono>
#include <optional>
#include <utility>
#include <vector>

namespace {

/**
 * A clip that has not been heard for this long is taken for lost, so that its caption goes: the captured source is
 * muted or has come to its end, the dub's source has been removed, or the service has not sent the rest of the clip.
 */
constexpr std::chrono::seconds kLongestClipSilence{2};
constexpr std::chrono::milliseconds kClipWatchInterval{250};

} // namespace

DubbedOutputs::DubbedOutputs(const Settings &chosen) : settings(chosen)
{
	connect(&clipWatch, &QTimer::timeout, this, &DubbedOutputs::watchClips);
	connect(this, &DubbedOutputs::clipStarted, &clipWatch, [this] { clipWatch.start(kClipWatchInterval); });
}

// Which dubs there are

void DubbedOutputs::update()
{
	const QStringList languages = settings.dubbingLanguages();
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
	Q_EMIT changed();
}

void DubbedOutputs::restore()
{
	const QStringList dubbed = dubbedLanguages();
	for (const QString &code : dubbed) {
		restoreDub(code);
	}
	Q_EMIT changed();
}

void DubbedOutputs::takeUp(const QString &sourceName)
{
	const auto named = std::find_if(dubbedSources.begin(), dubbedSources.end(), [&sourceName](const auto &entry) {
		return QString::fromStdString(entry.second->name()) == sourceName;
	});
	if (named != dubbedSources.end()) {
		const QString code = named->first;
		restoreDub(code);
		Q_EMIT changed();
	}
}

void DubbedOutputs::abandon()
{
	clipWatch.stop();
	const std::unique_lock guard(dubbedMutex);
	for (auto &[code, source] : dubbedSources) {
		source->forgetSource();
	}
	dubbedSources.clear();
}

void DubbedOutputs::restoreDub(const QString &code)
{
	if (dubbedSources.at(code)->hasSource()) {
		return;
	}
	DubbedSources::node_type dub = takeDub(code);
	dub.mapped()->restoreSource();
	putDub(std::move(dub));
}

QStringList DubbedOutputs::dubbedLanguages() const
{
	QStringList codes;
	for (const auto &[code, source] : dubbedSources) {
		codes.append(code);
	}
	return codes;
}

DubbedOutputs::DubbedSources::node_type DubbedOutputs::takeDub(const QString &code)
{
	const std::unique_lock guard(dubbedMutex);
	return dubbedSources.extract(code);
}

void DubbedOutputs::putDub(DubbedSources::node_type dub)
{
	const std::unique_lock guard(dubbedMutex);
	dubbedSources.insert(std::move(dub));
	// In the same locked section: with a chunk in between, the dub would output to the very source whose callback
	// it is called from, and OBS would wait for a mutex that it holds.
	if (isOwnOutput(feed)) {
		feed = nullptr;
	}
}

std::unique_ptr<DubbedSource> DubbedOutputs::createDubbedSource(const QString &code)
{
	const QString name = languageDisplayName(code);
	talvora_log(LOG_INFO, "Talvora: creating dubbed source for '%s' (%s)", code.toUtf8().constData(),
		    name.toUtf8().constData());

	auto source = std::make_unique<DubbedSource>(code.toStdString(), name.toStdString());
	source->setDuckingLevel(settings.duckingLevel);
	source->setTtsLevel(settings.ttsVolume);
	source->setMuteOriginal(settings.muteOriginal);
	// Called on the audio thread, which shall do nothing but post: the code is captured as the QString to be
	// emitted.
	source->onClipStarted = [this, code](const std::string &, int clipId) {
		QMetaObject::invokeMethod(
			this, [this, code, clipId] { Q_EMIT clipStarted(code, clipId); }, Qt::QueuedConnection);
	};
	source->onClipEnded = [this, code](const std::string &, int clipId) {
		QMetaObject::invokeMethod(
			this, [this, code, clipId] { Q_EMIT clipEnded(code, clipId); }, Qt::QueuedConnection);
	};
	// Posted too, although it is called on this thread: the clip's start may still be in the event queue.
	source->onClipLost = [this, code](const std::string &, int) {
		QMetaObject::invokeMethod(this, [this, code] { Q_EMIT clipLost(code); }, Qt::QueuedConnection);
	};
	return source;
}

// What they sound like

template <typename Action> void DubbedOutputs::forEachDubbedSource(Action action)
{
	const std::shared_lock guard(dubbedMutex);
	for (auto &[code, source] : dubbedSources) {
		action(*source);
	}
}

void DubbedOutputs::setDuckingLevel(float level)
{
	forEachDubbedSource([level](DubbedSource &source) { source.setDuckingLevel(level); });
}

void DubbedOutputs::setTtsVolume(float volume)
{
	forEachDubbedSource([volume](DubbedSource &source) { source.setTtsLevel(volume); });
}

void DubbedOutputs::setMuteOriginal(bool mute)
{
	forEachDubbedSource([mute](DubbedSource &source) { source.setMuteOriginal(mute); });
}

// What they say

void DubbedOutputs::deliver(const QString &language, int clipId, const QByteArray &pcm, int sampleRate)
{
	const std::shared_lock guard(dubbedMutex);
	const auto found = dubbedSources.find(language);
	if (found == dubbedSources.end()) {
		return;
	}
	DubbedSource &source = *found->second;
	if (pcm.isEmpty()) {
		source.ttsClipEnded(clipId);
		return;
	}
	if (pcm.size() % 2 != 0) {
		talvora_log(LOG_WARNING, "Talvora: odd TTS PCM size %d for '%s', truncating last byte",
			    static_cast<int>(pcm.size()), language.toUtf8().constData());
	}
	const qsizetype count = pcm.size() / 2;
	std::vector<int16_t> samples(static_cast<size_t>(count));
	if (count > 0) {
		qFromLittleEndian<qint16>(pcm.constData(), count, samples.data());
	}
	source.pushTtsAudio(clipId, samples.data(), samples.size(), sampleRate);
}

void DubbedOutputs::flush()
{
	forEachDubbedSource([](DubbedSource &source) { source.flush(); });
}

void DubbedOutputs::watchClips()
{
	bool playing = false;
	QStringList lost;
	for (const auto &[code, source] : dubbedSources) {
		const std::optional<std::chrono::nanoseconds> silence = source->timeSinceHeard();
		playing |= silence.has_value();
		if (silence >= kLongestClipSilence) {
			lost.append(code);
		}
	}
	if (!playing) {
		clipWatch.stop();
	}
	for (const QString &code : std::as_const(lost)) {
		Q_EMIT clipLost(code);
	}
}

// What they hear

bool DubbedOutputs::publishes(const obs_source_t *source)
{
	const std::shared_lock guard(dubbedMutex);
	return isOwnOutput(source);
}

bool DubbedOutputs::isOwnOutput(const obs_source_t *source) const
{
	return std::any_of(dubbedSources.begin(), dubbedSources.end(),
			   [source](const auto &entry) { return entry.second->publishes(source); });
}

DubbedOutputs::Chunk::Chunk(DubbedOutputs &outputs, const obs_source_t *source)
	: dubs(outputs), guard(outputs.dubbedMutex), isFeed(source == outputs.feed)
{
}

void DubbedOutputs::Chunk::push(const float *left, const float *right, size_t frames, uint32_t sampleRate,
				uint64_t timestamp) const
{
	for (const auto &[code, dub] : dubs.dubbedSources) {
		dub->pushOriginalAudio(left, right, frames, sampleRate, timestamp);
	}
}
