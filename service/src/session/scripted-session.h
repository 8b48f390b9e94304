// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "base/event-log.h"
#include "session/connection.h"
#include "session/script.h"

#include <QObject>
#include <QStringList>
#include <QTimer>

/** Plays a script on one connection: the steps in order, then it stays open. Lives on the network thread. */
class ScriptedSession : public QObject {
	Q_OBJECT

public:
	ScriptedSession(Connection &connection, const script::Steps &steps, EventLog &events, QObject *parent);

private:
	void onText(const QString &text);
	void onBinary(const QByteArray &frame);
	/** Does steps until one has to wait. */
	void proceed();
	bool perform(const script::Step &step);
	void sendTts(const script::SendTts &tts);

	Connection &connection;
	script::Steps steps;
	EventLog &events;
	qsizetype next = 0;
	/** Types of messages that no "expect" has taken yet. */
	QStringList received;
	qint64 audioBytes = 0;
	QTimer timer;
	/** The wait of the current step is over. */
	bool waited = false;
};
