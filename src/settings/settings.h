// SPDX-License-Identifier: GPL-2.0-or-later
#pragma once

#include "settings/language-catalogue.h"

#include <QColor>
#include <QFont>
#include <QJsonArray>
#include <QJsonObject>
#include <QString>

/** Everything the user has chosen, with its JSON form: the contents of the configuration file. */
struct Settings {
	/** The service's credential. Never logged. */
	QString apiKey;
	/** Name of the OBS source whose audio is captured; empty for none. */
	QString audioSource;
	/** Spoken language. */
	QString sourceLanguage = QStringLiteral("en");
	LanguageTargets languageTargets;
	/** "translated" or "original". */
	QString captionMode = QStringLiteral("translated");
	/** "left", "center" or "right". */
	QString captionAlignment = QStringLiteral("center");
	QColor captionTextColor = Qt::white;
	QColor captionBgColor = Qt::transparent;
	/** Percent. */
	int captionOpacity = 100;
	QFont captionFont = QFont(QStringLiteral("-apple-system"), 40, QFont::DemiBold);
	/** Gain of the original while speech plays, 0 to 1. */
	float duckingLevel = 0.2f;
	/** Gain of the speech, 0 to 1. */
	float ttsVolume = 1.0f;
	/** Dubs leave the original out altogether. */
	bool muteOriginal = false;
	/** Start a session when OBS starts. */
	bool autoConnect = false;
	/** The dock was open when OBS closed. */
	bool dockVisible = false;

	/** Codes of all targets, ascending. */
	QStringList targetLanguageCodes() const { return languageTargets.keys(); }
	/** Codes of the targets with dubbing, ascending. */
	QStringList dubbingLanguages() const;
	/** Codes of the targets with captions, ascending. */
	QStringList captionLanguages() const;
	/** The targets as the service and the configuration file take them, ascending. */
	QJsonArray targetLanguagesJson() const;

	/** All keys of the configuration file. */
	QJsonObject toJson() const;

	/**
	 * Takes over what `json` holds. A key that is missing or of another type gives that setting's default, but a
	 * missing font keeps the present one. Values are neither checked nor clamped.
	 */
	void readJson(const QJsonObject &json);
};
