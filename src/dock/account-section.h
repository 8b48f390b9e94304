// SPDX-License-Identifier: GPL-2.0-or-later
#pragma once

#include <QWidget>

class QPushButton;
class SessionPanel;
class SignInPanel;
class TalvoraPlugin;

/** The account: the ways to sign in while signed out, Start and Stop while signed in. */
class AccountSection : public QWidget {
	Q_OBJECT

public:
	/** @param dock becomes the parent of what a sign-in opens */
	AccountSection(TalvoraPlugin &plugin, QWidget *dock);

	SessionPanel &sessionPanel() const { return *session; }
	/** Ends the sign-ins that are under way, before the dock and what it shows of them go. */
	void endSignIn();

public Q_SLOTS:
	void setAuthenticated(bool on);

private Q_SLOTS:
	void onLogoutClicked();

private:
	friend class PluginDockTest;

	TalvoraPlugin &plugin;
	QPushButton *logoutButton;
	SignInPanel *signIn;
	SessionPanel *session;
	bool authenticated = false;
};
