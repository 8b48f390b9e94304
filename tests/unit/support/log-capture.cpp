// SPDX-License-Identifier: GPL-2.0-or-later
#include "log-capture.h"

#include <QMutexLocker>

#include <array>
#include <cstdio>

LogCapture::LogCapture()
{
	base_get_log_handler(&previous, &previousParam);
	base_set_log_handler(handle, this);
}

LogCapture::~LogCapture()
{
	base_set_log_handler(previous, previousParam);
}

void LogCapture::handle(int level, const char *format, va_list arguments, void *self)
{
	std::array<char, 8192> buffer;
	vsnprintf(buffer.data(), buffer.size(), format, arguments);
	auto *capture = static_cast<LogCapture *>(self);
	const QMutexLocker locker(&capture->mutex);
	capture->captured.push_back({level, QString::fromUtf8(buffer.data())});
}

QStringList LogCapture::lines(int level) const
{
	const QMutexLocker locker(&mutex);
	QStringList found;
	for (const Line &line : captured) {
		if (line.level == level) {
			found.append(line.text);
		}
	}
	return found;
}

QStringList LogCapture::ownLines() const
{
	const QMutexLocker locker(&mutex);
	QStringList found;
	for (const Line &line : captured) {
		if (line.text.startsWith(QStringLiteral("[talvora-obs] "))) {
			found.append(line.text);
		}
	}
	return found;
}

void LogCapture::clear()
{
	const QMutexLocker locker(&mutex);
	captured.clear();
}
