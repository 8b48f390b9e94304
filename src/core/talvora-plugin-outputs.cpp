// SPDX-License-Identifier: GPL-2.0-or-later
// The dubs and captions of the target languages, and what they look and sound like.
#include "core/talvora-plugin.h"

#include "captions/caption-manager.h"
#include "obs/browser-source.h"
#include "plugin-support.h"

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
