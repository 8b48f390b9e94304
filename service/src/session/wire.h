// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QByteArray>
#include <QJsonArray>
#include <QJsonObject>
#include <QList>
#include <QString>
#include <QStringList>

/** A language that a client asks for. */
struct Target {
	QString code;
	bool dubbing = false;
	bool captions = false;
};

/** Reads the "targetLanguages" array; what is no object, has no usable code or repeats a code is left out. */
QList<Target> targetsFromJson(const QJsonArray &array);

/** Whether a language code can stand as the tag of a binary frame: 2 to 10 ASCII letters or "-". */
bool isLanguageTag(const QString &code);

namespace messages {
QJsonObject authOk(int maxTargetLanguages);
QJsonObject authError(const QString &error);
QJsonObject transcriptInterim(const QString &text);
QJsonObject transcriptFinal(const QString &text);
QJsonObject caption(const QString &language, const QString &text, double durationSec, int clipId);
QJsonObject ttsStart(const QString &language, int clipId, int sampleRate);
QJsonObject ttsEnd(const QString &language);
QJsonObject sessionEnded(double captionMinutes, double dubbedMinutes);
} // namespace messages

/**
 * Cuts a clip's PCM into binary frames of at most `pcmPerFrame` bytes (even) of PCM, each led by the language's tag. A
 * receiver looks for tags inside a frame as well: where the PCM happens to look like the tag of a known language, the
 * cut goes through it, so that it arrives as the audio it is.
 */
QList<QByteArray> taggedFrames(const QString &language, const QByteArray &pcm, qsizetype pcmPerFrame);
