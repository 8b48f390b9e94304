// SPDX-License-Identifier: GPL-2.0-or-later
// The dubs and captions of the target languages, and what they look and sound like.
#include "core/talvora-plugin.h"

#include "captions/caption-manager.h"
#include "obs/browser-source.h"
#include "plugin-support.h"

#include <mutex>
#include <shared_mutex>
#include <utility>

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
	// Queued too, although it is called on this thread: the start of the clip may still be on its way.
	source->onClipLost = [this, code](const std::string &, int clipId) {
		QMetaObject::invokeMethod(
			this, [this, code, clipId] { onClipLost(code, clipId); }, Qt::QueuedConnection);
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
