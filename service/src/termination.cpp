// SPDX-License-Identifier: GPL-3.0-or-later
#include "termination.h"

#include <QSocketNotifier>

#include <array>
#include <csignal>
#include <sys/socket.h>
#include <unistd.h>

namespace {

/** Written by the signal handler, read by the event loop. */
std::array<int, 2> signalSockets{-1, -1};

void onSignal(int)
{
	const char byte = 0;
	[[maybe_unused]] const ssize_t written = ::write(signalSockets[0], &byte, 1);
}

void setHandler(void (*handler)(int))
{
	struct sigaction action = {};
	action.sa_handler = handler;
	action.sa_flags = SA_RESTART;
	sigaction(SIGINT, &action, nullptr);
	sigaction(SIGTERM, &action, nullptr);
}

} // namespace

Termination::Termination(QObject *parent) : QObject(parent)
{
	if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, signalSockets.data()) != 0) {
		qFatal("cannot make a socket pair");
	}
	auto *notifier = new QSocketNotifier(signalSockets[1], QSocketNotifier::Read, this);
	connect(notifier, &QSocketNotifier::activated, this, [this, notifier] {
		notifier->setEnabled(false);
		Q_EMIT requested();
	});
	setHandler(onSignal);
}

Termination::~Termination()
{
	setHandler(SIG_DFL);
	::close(signalSockets[0]);
	::close(signalSockets[1]);
}
