// SPDX-License-Identifier: GPL-2.0-or-later
#pragma once

#include <QMutex>
#include <QString>
#include <QStringList>

#include <util/base.h>

#include <vector>

/** Collects OBS's log while it lives. Lines may come from any thread. One at a time. */
class LogCapture {
public:
	LogCapture();
	~LogCapture();

	LogCapture(const LogCapture &) = delete;
	LogCapture &operator=(const LogCapture &) = delete;

	/** The lines of one level (LOG_INFO, LOG_WARNING, ...), in order. */
	QStringList lines(int level) const;
	/** All lines that start with the module's prefix, whatever their level, in order. */
	QStringList ownLines() const;
	bool contains(int level, const QString &line) const { return lines(level).contains(line); }
	void clear();

private:
	struct Line {
		int level;
		QString text;
	};

	static void handle(int level, const char *format, va_list arguments, void *self);

	mutable QMutex mutex;
	std::vector<Line> captured;
	log_handler_t previous = nullptr;
	void *previousParam = nullptr;
};
