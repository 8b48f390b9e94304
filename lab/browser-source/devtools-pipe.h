// SPDX-License-Identifier: GPL-2.0-or-later
#pragma once

#include <QByteArray>
#include <QString>
#include <QTemporaryDir>

#include <optional>
#include <sys/types.h>

/// A headless Chromium as a child process, spoken to over its remote debugging pipe: messages end with a NUL byte.
///
/// Belongs to the one thread that made it, which must have SIGPIPE blocked and must live as long as the object: the
/// kernel kills the child when that thread ends, however it ends. The destructor ends the child and removes its
/// profile folder; it takes 2 seconds at most plus the removal.
class DevtoolsPipe {
public:
	/// Path of the browser's program, empty when it is not installed.
	static QString program();

	explicit DevtoolsPipe(const QString &program);
	~DevtoolsPipe();
	DevtoolsPipe(const DevtoolsPipe &) = delete;
	DevtoolsPipe &operator=(const DevtoolsPipe &) = delete;

	/// Queues a message; exchange() writes it.
	void send(const QByteArray &message);
	/// Waits until the pipe or `wakeup` (a readable descriptor) is ready, `timeoutMs` at most (-1: for ever), then
	/// writes and reads what is possible without waiting. False when the child is gone.
	bool exchange(int wakeup, int timeoutMs);
	/// The next whole message received, without its NUL.
	std::optional<QByteArray> receive();

private:
	bool writeOutgoing();
	bool readIncoming();

	QTemporaryDir profile;
	pid_t child = -1;
	int commands = -1; ///< written by us
	int replies = -1;  ///< read by us
	QByteArray outgoing;
	QByteArray incoming;
	qsizetype searched = 0; ///< bytes of `incoming` known to hold no NUL
};
