// SPDX-License-Identifier: GPL-2.0-or-later
#pragma once

#include "client/ws-state.h"

#include <QWidget>

class QLabel;
class QPushButton;
class QTimer;
class TalvoraPlugin;

/** Start and Stop, and under them the status row: dot, text and clock of the session. */
class SessionPanel : public QWidget {
	Q_OBJECT

public:
	/** @param dock becomes the parent of the session's timer */
	SessionPanel(TalvoraPlugin &plugin, QWidget *dock);

	/** Gives Start the keyboard. */
	void takeKeyboard();

public Q_SLOTS:
	void onWsStateChanged(WsState state);
	/** Shows a state of the connection; values that are none change nothing. */
	void updateStatusIndicator(WsState state);
	/** Shows the start of a message from outside in red, and logs all of it. */
	void onErrorOccurred(const QString &message);
	/** Shows `text` in the status row, until the next state does. Markup in it is interpreted. */
	void showMessage(const QString &text);

private Q_SLOTS:
	void onStartClicked();
	void onStopClicked();
	void onSessionTick();

private:
	friend class PluginDockTest;

	void enableButtons(bool canStart, bool canStop);

	TalvoraPlugin &plugin;
	QPushButton *startButton;
	QPushButton *stopButton;
	QLabel *statusDot;
	QLabel *statusLabel;
	QLabel *clockLabel;
	QTimer *sessionTimer;
	/** Seconds since the session became connected. */
	int sessionSeconds = 0;
};
