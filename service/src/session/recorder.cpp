// SPDX-License-Identifier: GPL-3.0-or-later
#include "session/recorder.h"

#include "base/clock.h"

#include <QJsonDocument>

bool Recorder::open(const QString &path)
{
	file.setFileName(path);
	return file.open(QIODevice::WriteOnly | QIODevice::Truncate);
}

void Recorder::opened(int connection, const QString &path, const QString &userAgent)
{
	line(connection, "open", {{"path", path}, {"user_agent", userAgent}});
}

void Recorder::text(int connection, const QString &text)
{
	line(connection, "text", {{"text", text}});
}

void Recorder::binary(int connection, const QByteArray &frame)
{
	if (!file.isOpen()) {
		return;
	}
	QFile &frames = pcm[connection];
	if (!frames.isOpen()) {
		frames.setFileName(QStringLiteral("%1.%2.pcm").arg(file.fileName()).arg(connection));
		if (!frames.open(QIODevice::WriteOnly | QIODevice::Truncate)) {
			return;
		}
	}
	// First the bytes, then the line about them: a reader of the line finds the bytes in the file.
	const qint64 offset = frames.pos();
	frames.write(frame);
	frames.flush();
	line(connection, "binary", {{"bytes", static_cast<qint64>(frame.size())}, {"offset", offset}});
}

void Recorder::closed(int connection, int closeCode)
{
	line(connection, "close", {{"code", closeCode}});
	pcm.erase(connection);
}

void Recorder::line(int connection, const QString &kind, QJsonObject details)
{
	if (!file.isOpen()) {
		return;
	}
	details.insert("connection", connection);
	details.insert("kind", kind);
	details.insert("mono_ms", monotonicMs());
	file.write(QJsonDocument(details).toJson(QJsonDocument::Compact) + '\n');
	file.flush();
}
