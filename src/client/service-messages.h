// SPDX-License-Identifier: GPL-2.0-or-later
#pragma once

#include <QJsonArray>
#include <QJsonObject>
#include <QString>

#include <variant>

// The text messages exchanged with the translation service: JSON objects with a member "type". Outgoing ones are
// built in compact form with ascending keys. Incoming ones are read leniently: a member that is missing or of another
// JSON type takes its default, and a number that is not whole does not count as an integer. Plain functions, for any
// thread.

/** The first message of every connection. */
QString buildAuthMessage(const QString &apiKey, const QString &sourceLanguage, const QJsonArray &targetLanguages,
			 const QString &captionMode);
/** New targets for a running session. */
QString buildConfigUpdateMessage(const QJsonArray &targetLanguages, const QString &captionMode);
/** The client ends the session. */
QString buildStopMessage();

struct AuthOkMessage {
	/** 0 when the service names no limit. */
	int maxTargetLanguages = 0;
	QJsonObject limits;
	QJsonObject voiceProfile;
};

struct AuthErrorMessage {
	QString error;
};

struct TranscriptInterimMessage {
	QString text;
};

struct TranscriptFinalMessage {
	QString text;
	/** Passed on as received. */
	QJsonObject translations;
};

struct CaptionMessage {
	QString language;
	QString text;
	/** Seconds; 0 when the service gives none. */
	double duration = 0.0;
	int clipId = 0;
};

struct CaptionClearMessage {};

struct TtsStartMessage {
	QString language;
	int clipId = 0;
	/** Hz. */
	int sampleRate = 24000;
};

struct TtsEndMessage {
	/** Empty: the language of the last "tts_start". */
	QString language;
};

struct LimitWarningMessage {
	QString feature;
	int minutesRemaining = 0;
};

struct LimitReachedMessage {
	QString feature;
};

struct SessionEndedMessage {
	double captionMinutes = 0.0;
	double dubbedMinutes = 0.0;
};

struct UnknownMessage {
	QString type;
};

using ServiceMessage = std::variant<AuthOkMessage, AuthErrorMessage, TranscriptInterimMessage, TranscriptFinalMessage,
				    CaptionMessage, CaptionClearMessage, TtsStartMessage, TtsEndMessage,
				    LimitWarningMessage, LimitReachedMessage, SessionEndedMessage, UnknownMessage>;

/** Reads an incoming message. "type" is compared exactly, letter case included. */
ServiceMessage readServiceMessage(const QJsonObject &msg);
