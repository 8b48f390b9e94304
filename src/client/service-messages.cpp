// SPDX-License-Identifier: GPL-2.0-or-later
#include "client/service-messages.h"

#include <QJsonDocument>
#include <QJsonValue>

namespace {

QString toText(const QJsonObject &msg)
{
	return QString::fromUtf8(QJsonDocument(msg).toJson(QJsonDocument::Compact));
}

QString authErrorText(const QJsonObject &msg)
{
	for (const char *key : {"error", "reason"}) {
		const QJsonValue value = msg.value(QLatin1String(key));
		if (value.isString()) {
			return value.toString();
		}
	}
	return QStringLiteral("Unknown auth error");
}

SessionEndedMessage readSessionEnded(const QJsonObject &msg)
{
	const QJsonObject usage = msg.value(QLatin1String("usage")).toObject();
	return {usage.value(QLatin1String("captionMinutes")).toDouble(),
		usage.value(QLatin1String("dubbedMinutes")).toDouble()};
}

} // namespace

QString buildAuthMessage(const QString &apiKey, const QString &sourceLanguage, const QJsonArray &targetLanguages,
			 const QString &captionMode)
{
	return toText({{QStringLiteral("type"), QStringLiteral("auth")},
		       {QStringLiteral("apiKey"), apiKey},
		       {QStringLiteral("sourceLanguage"), sourceLanguage},
		       {QStringLiteral("targetLanguages"), targetLanguages},
		       {QStringLiteral("captionMode"), captionMode}});
}

QString buildConfigUpdateMessage(const QJsonArray &targetLanguages, const QString &captionMode)
{
	return toText({{QStringLiteral("type"), QStringLiteral("config_update")},
		       {QStringLiteral("targetLanguages"), targetLanguages},
		       {QStringLiteral("captionMode"), captionMode}});
}

QString buildStopMessage()
{
	return toText({{QStringLiteral("type"), QStringLiteral("stop")}});
}

ServiceMessage readServiceMessage(const QJsonObject &msg)
{
	const auto text = [&msg](const char *key) { return msg.value(QLatin1String(key)).toString(); };
	const auto integer = [&msg](const char *key, int otherwise = 0) {
		return msg.value(QLatin1String(key)).toInt(otherwise);
	};
	const auto object = [&msg](const char *key) { return msg.value(QLatin1String(key)).toObject(); };

	const QString type = text("type");
	if (type == QLatin1String("auth_ok")) {
		return AuthOkMessage{integer("maxTargetLanguages"), object("limits"), object("voiceProfile")};
	}
	if (type == QLatin1String("auth_error")) {
		return AuthErrorMessage{authErrorText(msg)};
	}
	if (type == QLatin1String("transcript_interim")) {
		return TranscriptInterimMessage{text("text")};
	}
	if (type == QLatin1String("transcript_final")) {
		return TranscriptFinalMessage{text("text"), object("translations")};
	}
	if (type == QLatin1String("caption")) {
		return CaptionMessage{text("language"), text("text"), msg.value(QLatin1String("duration")).toDouble(),
				      integer("clipId")};
	}
	if (type == QLatin1String("caption_clear")) {
		return CaptionClearMessage{};
	}
	if (type == QLatin1String("tts_start")) {
		return TtsStartMessage{text("language"), integer("clipId"), integer("sampleRate", 24000)};
	}
	if (type == QLatin1String("tts_end")) {
		return TtsEndMessage{text("language")};
	}
	if (type == QLatin1String("limit_warning")) {
		return LimitWarningMessage{text("feature"), integer("minutesRemaining")};
	}
	if (type == QLatin1String("limit_reached")) {
		return LimitReachedMessage{text("feature")};
	}
	if (type == QLatin1String("session_ended")) {
		return readSessionEnded(msg);
	}
	return UnknownMessage{type};
}
