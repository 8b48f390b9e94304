// SPDX-License-Identifier: GPL-3.0-or-later
#include "base/event-log.h"

#include "base/clock.h"

#include <QDateTime>
#include <QJsonDocument>

bool EventLog::open(const QString &path)
{
	file.setFileName(path);
	return file.open(QIODevice::WriteOnly | QIODevice::Truncate);
}

void EventLog::write(const QString &event, int connection, QJsonObject details)
{
	writeAt(monotonicMs(), event, connection, std::move(details));
}

void EventLog::writeAt(qint64 monoMs, const QString &event, int connection, QJsonObject details)
{
	const std::scoped_lock lock(mutex);
	if (!file.isOpen()) {
		return;
	}
	const QDateTime wall = QDateTime::currentDateTimeUtc().addMSecs(monoMs - monotonicMs());
	details.insert("event", event);
	details.insert("connection", connection);
	details.insert("mono_ms", monoMs);
	details.insert("wall", wall.toString(Qt::ISODateWithMs));
	file.write(QJsonDocument(details).toJson(QJsonDocument::Compact) + '\n');
	file.flush();
}
