// SPDX-License-Identifier: GPL-3.0-or-later
#include "session/wire.h"

#include "base/languages.h"

#include <QSet>

#include <algorithm>

namespace {

constexpr qsizetype kShortestTag = 2;
constexpr qsizetype kLongestTag = 10;

QByteArray tagBytes(const QString &language)
{
	const QByteArray code = language.toLatin1();
	return static_cast<char>(code.size()) + code;
}

/** Where the first piece of PCM that looks like one of the tags begins, or the end. */
qsizetype firstTagIn(const QByteArray &pcm, qsizetype from, qsizetype end, const QList<QByteArray> &tags)
{
	const QByteArrayView piece = QByteArrayView(pcm).sliced(from, end - from);
	qsizetype first = piece.size();
	for (const QByteArray &tag : tags) {
		const qsizetype found = piece.indexOf(tag);
		if (found >= 0) {
			first = std::min(first, found);
		}
	}
	return from + first;
}

} // namespace

bool isLanguageTag(const QString &code)
{
	const auto isTagChar = [](QChar c) {
		return (c >= u'a' && c <= u'z') || (c >= u'A' && c <= u'Z') || c == u'-';
	};
	return code.size() >= kShortestTag && code.size() <= kLongestTag &&
	       std::all_of(code.begin(), code.end(), isTagChar);
}

QList<Target> targetsFromJson(const QJsonArray &array)
{
	QList<Target> targets;
	QSet<QString> seen;
	for (const auto &value : array) {
		const QJsonObject object = value.toObject();
		const QString code = object.value(QLatin1String("code")).toString();
		if (!isLanguageTag(code) || seen.contains(code)) {
			continue;
		}
		seen.insert(code);
		targets.append({code, object.value(QLatin1String("dubbing")).toBool(),
				object.value(QLatin1String("captions")).toBool()});
	}
	return targets;
}

namespace messages {

QJsonObject authOk(int maxTargetLanguages)
{
	return {{"type", "auth_ok"},
		{"maxTargetLanguages", maxTargetLanguages},
		{"limits", QJsonObject()},
		{"voiceProfile", QJsonObject()}};
}

QJsonObject authError(const QString &error)
{
	return {{"type", "auth_error"}, {"error", error}};
}

QJsonObject transcriptInterim(const QString &text)
{
	return {{"type", "transcript_interim"}, {"text", text}};
}

QJsonObject transcriptFinal(const QString &text)
{
	return {{"type", "transcript_final"}, {"text", text}, {"translations", QJsonObject()}};
}

QJsonObject caption(const QString &language, const QString &text, double durationSec, int clipId)
{
	return {{"type", "caption"},
		{"language", language},
		{"text", text},
		{"duration", durationSec},
		{"clipId", clipId}};
}

QJsonObject ttsStart(const QString &language, int clipId, int sampleRate)
{
	return {{"type", "tts_start"}, {"language", language}, {"clipId", clipId}, {"sampleRate", sampleRate}};
}

QJsonObject ttsEnd(const QString &language)
{
	return {{"type", "tts_end"}, {"language", language}};
}

QJsonObject sessionEnded(double captionMinutes, double dubbedMinutes)
{
	return {{"type", "session_ended"},
		{"usage", QJsonObject{{"captionMinutes", captionMinutes}, {"dubbedMinutes", dubbedMinutes}}}};
}

} // namespace messages

QList<QByteArray> taggedFrames(const QString &language, const QByteArray &pcm, qsizetype pcmPerFrame)
{
	const QByteArray tag = tagBytes(language);
	QList<QByteArray> tags{tag};
	const QStringList codes = languageCodes();
	for (const QString &known : codes) {
		tags.append(tagBytes(known));
	}
	QList<QByteArray> frames;
	qsizetype start = 0;
	while (start < pcm.size()) {
		const qsizetype wanted = std::min(start + pcmPerFrame, pcm.size());
		const qsizetype lookalike = firstTagIn(pcm, start, wanted, tags);
		// A tag has at least three bytes, so that an even cut inside it exists.
		const qsizetype end = lookalike == wanted ? wanted : lookalike + 2 - lookalike % 2;
		frames.append(tag + pcm.mid(start, end - start));
		start = end;
	}
	return frames;
}
