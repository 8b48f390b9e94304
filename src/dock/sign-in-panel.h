// SPDX-License-Identifier: GPL-2.0-or-later
#pragma once

#include <QWidget>

class OAuthListener;
class QLabel;
class QLineEdit;
class QPushButton;
class TalvoraPlugin;
struct EmailSignInAnswer;

/** The three ways to a key: e-mail and password, a provider in the browser, and a key that the user has. */
class SignInPanel : public QWidget {
	Q_OBJECT

public:
	/** @param dock becomes the parent of what a sign-in opens: its connection, its listener, its warning */
	SignInPanel(TalvoraPlugin &plugin, QWidget *dock);

	/** Gives the first field the keyboard. */
	void takeKeyboard();
	/** Opens what an attempt had closed, for the next one. */
	void reset();
	/** Empties the fields of the key and of the password, so that nobody signs in with what the user has left. */
	void forgetSecrets();
	/** Drops sign-ins that are still waiting after the user signed in another way, or out, without a failure. */
	void abandon();
	/** Ends them as failed, before the dock goes. */
	void end();

Q_SIGNALS:
	/** The plug-in has a key. */
	void signedIn();
	/** The panel says something, which is also said where it is seen when signed in. Markup is interpreted. */
	void messageChanged(const QString &text);

protected:
	bool eventFilter(QObject *watched, QEvent *event) override;

private Q_SLOTS:
	void onEmailLoginClicked();
	void onEmailLoginFinished();
	void onOAuthLoginClicked(const QString &provider);
	void onOAuthSuccess(const QString &apiKey, int maxTargetLanguages);
	void onOAuthFailed(const QString &error);
	void onApiKeyConnectClicked();
	void onShowApiKeyClicked();

private:
	friend class PluginDockTest;

	QWidget *buildProviderRow();
	QPushButton *addProvider(const QString &name, const QString &provider, const char *styleSheet);
	QWidget *buildApiKeyRow();
	void handleEmailAnswer(const EmailSignInAnswer &answer);
	void signInWith(const QString &apiKey, int maxTargetLanguages);
	void setSignInButtonsEnabled(bool enabled);
	void abandonBrowserSignIn();
	void showSignInMessage(const QString &text);

	TalvoraPlugin &plugin;
	QWidget *const dockWidget;
	QLineEdit *emailEdit;
	QLineEdit *passwordEdit;
	QPushButton *signInButton;
	QPushButton *googleButton = nullptr;
	QPushButton *twitchButton = nullptr;
	QPushButton *kickButton = nullptr;
	QWidget *apiKeyRow = nullptr;
	QLineEdit *apiKeyEdit = nullptr;
	QLabel *signInMessageLabel;
	/** The sign-in through a browser that is under way; null when there is none. */
	OAuthListener *oauthListener = nullptr;
};
