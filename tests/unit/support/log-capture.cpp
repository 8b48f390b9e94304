// SPDX-License-Identifier: GPL-2.0-or-later
#include "log-capture.h"

#include <QMutex>
#include <QMutexLocker>

#include <array>
#include <cstdio>
#include <utility>

namespace {

// Not in the object, which a thread that logs may outlive.
QMutex mutex;
LogCapture *current = nullptr;

} // namespace

LogCapture::LogCapture()
{
	const QMutexLocker locker(&mutex);
	outer = std::exchange(current, this);
	base_get_log_handler(&previous, &previousParam);
	base_set_log_handler(handle, nullptr);
}

LogCapture::~LogCapture()
{
	const QMutexLocker locker(&mutex);
	current = outer;
	base_set_log_handler(previous, previousParam);
}

void LogCapture::handle(int level, const char *format, va_list arguments, void *)
{
	std::array<char, 8192> buffer;
	vsnprintf(buffer.data(), buffer.size(), format, arguments);
	const QMutexLocker locker(&mutex);
	if (current) {
		current->captured.push_back({level, QString::fromUtf8(buffer.data())});
	}
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
