// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QByteArray>
#include <QFile>
#include <QJsonObject>
#include <QString>

#include <map>

/**
 * Keeps what clients sent: one JSON line per connection, message, frame and end in FILE, and the raw bytes of the
 * binary frames in FILE.N.pcm for connection N. One thread. Without a file it does nothing.
 */
class Recorder {
public:
	/** False when the file cannot be written. */
	bool open(const QString &path);
	void opened(int connection, const QString &path, const QString &userAgent);
	void text(int connection, const QString &text);
	void binary(int connection, const QByteArray &frame);
	void closed(int connection, int closeCode);

private:
	void line(int connection, const QString &kind, QJsonObject details);

	QFile file;
	std::map<int, QFile> pcm;
};
