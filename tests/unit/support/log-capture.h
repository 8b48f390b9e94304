// SPDX-License-Identifier: GPL-2.0-or-later
#pragma once

#include <QString>
#include <QStringList>

#include <util/base.h>

#include <vector>

/**
 * Collects OBS's log while it lives. Lines may come from any thread, also at the moment when it goes: OBS's own threads
 * do not stop for that.
 */
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

	static void handle(int level, const char *format, va_list arguments, void *);

	std::vector<Line> captured;
	/** The one that was there before and gets the lines again afterwards. */
	LogCapture *outer;
	log_handler_t previous = nullptr;
	void *previousParam = nullptr;
};
