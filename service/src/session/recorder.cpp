// SPDX-License-Identifier: GPL-3.0-or-later
#include "session/recorder.h"

#include "base/clock.h"

#include <QJsonDocument>

bool Recorder::open(const QString &path)
{
	m_file.setFileName(path);
	return m_file.open(QIODevice::WriteOnly | QIODevice::Truncate);
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
	if (!m_file.isOpen()) {
		return;
	}
	QFile &pcm = m_pcm[connection];
	if (!pcm.isOpen()) {
		pcm.setFileName(QStringLiteral("%1.%2.pcm").arg(m_file.fileName()).arg(connection));
		if (!pcm.open(QIODevice::WriteOnly | QIODevice::Truncate)) {
			return;
		}
	}
	// First the bytes, then the line about them: a reader of the line finds the bytes in the file.
	const qint64 offset = pcm.pos();
	pcm.write(frame);
	pcm.flush();
	line(connection, "binary", {{"bytes", static_cast<qint64>(frame.size())}, {"offset", offset}});
}

void Recorder::closed(int connection, int closeCode)
{
	line(connection, "close", {{"code", closeCode}});
	m_pcm.erase(connection);
}

void Recorder::line(int connection, const QString &kind, QJsonObject details)
{
	if (!m_file.isOpen()) {
		return;
	}
	details.insert("connection", connection);
	details.insert("kind", kind);
	details.insert("mono_ms", monotonicMs());
	m_file.write(QJsonDocument(details).toJson(QJsonDocument::Compact) + '\n');
	m_file.flush();
}
