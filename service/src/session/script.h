// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QByteArray>
#include <QJsonObject>
#include <QList>
#include <QString>

#include <optional>
#include <variant>

/** The steps of a scripted connection. Times are milliseconds, sizes bytes. */
namespace script {

/** Waits for a text message of a type. */
struct Expect {
	QString type;
};
/** Waits. */
struct AfterMs {
	int ms = 0;
};
/** Waits until so many bytes of audio have come in on this connection. */
struct AfterAudioBytes {
	qint64 bytes = 0;
};
/** Sends a text message. */
struct SendText {
	QString text;
};
/** Sends a binary frame as it is. */
struct SendBinary {
	QByteArray frame;
};
/** Sends a clip: "tts_start", tagged frames, "tts_end". */
struct SendTts {
	QString language;
	int clipId = 1;
	/** Hz. */
	int sampleRate = 24000;
	/** Bytes of PCM per frame. */
	qsizetype frameBytes = 0;
	QByteArray pcm;
	/** Send "tts_start". */
	bool start = true;
	/** Send "tts_end". */
	bool end = true;
};
/** Closes the connection in the orderly way. */
struct Close {
	int code = 1000;
};
/** Ends the connection without a closing handshake. */
struct Drop {};

using Step = std::variant<Expect, AfterMs, AfterAudioBytes, SendText, SendBinary, SendTts, Close, Drop>;
using Steps = QList<Step>;

/** A whole script: steps for the first connection, the second, and so on; the last one repeats. */
class Script {
public:
	/** Reads a script file. On failure nothing, and `error` says what is wrong where. */
	static std::optional<Script> load(const QString &path, QString *error);
	/** The same from its text; PCM files are looked for in `directory`. */
	static std::optional<Script> parse(const QByteArray &json, const QString &directory, QString *error);

	/** Steps for a connection, counted from 1. */
	[[nodiscard]] const Steps &forConnection(int number) const;

private:
	/** Never empty. */
	QList<Steps> connections;
};

} // namespace script
