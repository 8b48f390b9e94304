// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QFile>
#include <QJsonObject>
#include <QString>

#include <mutex>

/**
 * Writes what the service does as JSON lines, each with "event", "mono_ms" (CLOCK_MONOTONIC) and "wall" (UTC).
 * Callable from any thread. Without a file it does nothing.
 */
class EventLog {
public:
	/** False when the file cannot be written. */
	bool open(const QString &path);
	void write(const QString &event, int connection, QJsonObject details = {});
	/** The same for something that happened at an earlier `monoMs`. */
	void writeAt(qint64 monoMs, const QString &event, int connection, QJsonObject details = {});

private:
	std::mutex mutex;
	QFile file;
};
