// SPDX-License-Identifier: GPL-2.0-or-later
#include "settings/settings.h"

#include <algorithm>
#include <limits>

namespace {

QStringList codesWhere(const LanguageTargets &targets, bool LanguageTarget::*flag)
{
	QStringList codes;
	for (auto it = targets.cbegin(); it != targets.cend(); ++it) {
		if (it.value().*flag) {
			codes.append(it.key());
		}
	}
	return codes;
}

LanguageTarget readFlags(const QJsonObject &json)
{
	return {json[u"dubbing"].toBool(true), json[u"captions"].toBool(false)};
}

/** Early versions wrote bare codes that all shared the flags at the top level of the file. */
LanguageTargets readTargets(const QJsonObject &json)
{
	const QJsonArray array = json[u"targetLanguages"].toArray();
	const bool bareCodes = array.first().isString();

	LanguageTargets targets;
	for (const auto &element : array) {
		if (bareCodes) {
			targets[element.toString()] = readFlags(json);
		} else {
			const QJsonObject object = element.toObject();
			targets[object[u"code"].toString()] = readFlags(object);
		}
	}
	return targets;
}

/** Values beyond what a float holds become its largest. */
float readFloat(const QJsonObject &json, QStringView key, double fallback)
{
	constexpr double limit = std::numeric_limits<float>::max();
	return static_cast<float>(std::clamp(json[key].toDouble(fallback), -limit, limit));
}

QColor readColor(const QJsonObject &json, QStringView key, const QString &fallback)
{
	return QColor::fromString(json[key].toString(fallback));
}

} // namespace

QStringList Settings::dubbingLanguages() const
{
	return codesWhere(languageTargets, &LanguageTarget::dubbing);
}

QStringList Settings::captionLanguages() const
{
	return codesWhere(languageTargets, &LanguageTarget::captions);
}

QJsonArray Settings::targetLanguagesJson() const
{
	QJsonArray array;
	for (auto it = languageTargets.cbegin(); it != languageTargets.cend(); ++it) {
		array.append(QJsonObject{
			{QStringLiteral("code"), it.key()},
			{QStringLiteral("dubbing"), it.value().dubbing},
			{QStringLiteral("captions"), it.value().captions},
		});
	}
	return array;
}

QJsonObject Settings::toJson() const
{
	return {
		{QStringLiteral("apiKey"), apiKey},
		{QStringLiteral("audioSource"), audioSource},
		{QStringLiteral("sourceLanguage"), sourceLanguage},
		{QStringLiteral("targetLanguages"), targetLanguagesJson()},
		{QStringLiteral("duckingLevel"), static_cast<double>(duckingLevel)},
		{QStringLiteral("ttsVolume"), static_cast<double>(ttsVolume)},
		{QStringLiteral("muteOriginal"), muteOriginal},
		{QStringLiteral("autoConnect"), autoConnect},
		{QStringLiteral("dockVisible"), dockVisible},
		{QStringLiteral("captionMode"), captionMode},
		{QStringLiteral("captionAlignment"), captionAlignment},
		{QStringLiteral("captionTextColor"), captionTextColor.name(QColor::HexArgb)},
		{QStringLiteral("captionBgColor"), captionBgColor.name(QColor::HexArgb)},
		{QStringLiteral("captionOpacity"), captionOpacity},
		{QStringLiteral("captionFont"), captionFont.toString()},
	};
}

void Settings::readJson(const QJsonObject &json)
{
	apiKey = json[u"apiKey"].toString();
	audioSource = json[u"audioSource"].toString();
	sourceLanguage = json[u"sourceLanguage"].toString(QStringLiteral("en"));
	duckingLevel = readFloat(json, u"duckingLevel", 0.2);
	ttsVolume = readFloat(json, u"ttsVolume", 1.0);
	muteOriginal = json[u"muteOriginal"].toBool(false);
	autoConnect = json[u"autoConnect"].toBool(false);
	dockVisible = json[u"dockVisible"].toBool(false);
	captionMode = json[u"captionMode"].toString(QStringLiteral("translated"));
	captionAlignment = json[u"captionAlignment"].toString(QStringLiteral("center"));
	captionTextColor = readColor(json, u"captionTextColor", QStringLiteral("#FFFFFF"));
	captionBgColor = readColor(json, u"captionBgColor", QStringLiteral("#00000000"));
	captionOpacity = json[u"captionOpacity"].toInt(100);
	if (json.contains(u"captionFont")) {
		captionFont.fromString(json[u"captionFont"].toString());
	}
	languageTargets = readTargets(json);
}
