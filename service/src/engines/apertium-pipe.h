// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QProcess>
#include <QString>

#include <memory>
#include <optional>

/**
 * One Apertium mode as a persistent pipeline of child processes that translates sentence after sentence. It is
 * restarted when it dies or does not answer. One thread, which needs no event loop.
 */
class ApertiumPipe {
public:
	/** Whether the files of the mode are there. Callable from any thread. */
	static bool isInstalled(const QString &mode);

	explicit ApertiumPipe(QString mode);
	~ApertiumPipe();
	ApertiumPipe(const ApertiumPipe &) = delete;
	ApertiumPipe &operator=(const ApertiumPipe &) = delete;

	/**
	 * Starts the children unless they run, and has them translate something so that their files are loaded when
	 * the first sentence comes. Does not wait for them.
	 */
	void start();
	/** The translation, or nothing when the pipeline failed or took more than 5 s. */
	std::optional<QString> translate(const QString &text);

private:
	void stop();
	void write(const QString &text);
	std::optional<QString> read();

	QString mode;
	std::unique_ptr<QProcess> process;
	bool warmUpUnread = false;
};
