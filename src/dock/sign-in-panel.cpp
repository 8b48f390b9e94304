// SPDX-License-Identifier: GPL-2.0-or-later
#include "dock/sign-in-panel.h"

#include "core/talvora-plugin.h"
#include "dock/dock-widgets.h"
#include "plugin-support.h"
#include "sign-in/email-sign-in.h"
#include "sign-in/oauth-listener.h"

#include <QHBoxLayout>
#include <QKeyEvent>
#include <QLineEdit>
#include <QMessageBox>
#include <QVBoxLayout>

#include <utility>

namespace {

constexpr qsizetype kSignInErrorLength = 60;

constexpr auto kSignInStyle = "QPushButton { background-color: #4CAF50; color: white; border-radius: 4px; "
			      "padding: 6px 14px; font-weight: bold; }QPushButton:hover { background-color: #43A047; }";
constexpr auto kGoogleStyle = "QPushButton { background-color: #4285F4; color: white; border-radius: 4px; "
			      "padding: 6px 14px; font-weight: bold; }QPushButton:hover { background-color: #3367D6; }";
constexpr auto kTwitchStyle = "QPushButton { background-color: #9146FF; color: white; border-radius: 4px; "
			      "padding: 6px 14px; font-weight: bold; }QPushButton:hover { background-color: #7B2FF2; }";
constexpr auto kKickStyle = "QPushButton { background-color: #53FC18; color: black; border-radius: 4px; "
			    "padding: 6px 14px; font-weight: bold; }QPushButton:hover { background-color: #45D414; }";
constexpr auto kUseApiKeyStyle = "QPushButton { color: #888; font-size: 11px; border: none; "
				 "text-decoration: underline; padding: 2px; }QPushButton:hover { color: #aaa; }";
constexpr auto kConnectStyle = "QPushButton { background-color: #555; color: white; border-radius: 4px; "
			       "padding: 4px 12px; }QPushButton:hover { background-color: #666; }";

QLineEdit *lineEdit(const QString &placeholder)
{
	auto *made = new QLineEdit();
	made->setPlaceholderText(placeholder);
	made->setAccessibleName(placeholder);
	return made;
}

} // namespace

SignInPanel::SignInPanel(TalvoraPlugin &owner, QWidget *dock)
	: plugin(owner), dockWidget(dock), emailEdit(lineEdit(dock::text("Dock.Auth.Email"))),
	  passwordEdit(lineEdit(dock::text("Dock.Auth.Password"))),
	  signInButton(dock::button(dock::text("Dock.Auth.SignIn"), kSignInStyle)), signInMessageLabel(new QLabel())
{
	passwordEdit->setEchoMode(QLineEdit::Password);
	passwordEdit->installEventFilter(this);
	connect(passwordEdit, &QLineEdit::returnPressed, this, &SignInPanel::onEmailLoginClicked);
	connect(signInButton, &QPushButton::clicked, this, &SignInPanel::onEmailLoginClicked);

	QLabel *otherWays = dock::label("Dock.Auth.OrSignInWith");
	otherWays->setStyleSheet(QStringLiteral("color: gray; font-size: 11px; margin: 4px 0;"));
	QPushButton *useApiKey = dock::flatButton("Dock.Auth.UseApiKey", kUseApiKeyStyle);
	connect(useApiKey, &QPushButton::clicked, this, &SignInPanel::onShowApiKeyClicked);

	signInMessageLabel->setWordWrap(true);
	signInMessageLabel->setSizePolicy(QSizePolicy::Ignored, QSizePolicy::Preferred);
	signInMessageLabel->hide();

	auto *rows = new QVBoxLayout(this);
	dock::removeMargins(rows);
	rows->addWidget(emailEdit);
	rows->addWidget(passwordEdit);
	rows->addWidget(signInButton);
	rows->addWidget(otherWays);
	rows->addWidget(buildProviderRow());
	rows->addWidget(useApiKey, 0, Qt::AlignCenter);
	rows->addWidget(buildApiKeyRow());
	rows->addWidget(signInMessageLabel);
}

QWidget *SignInPanel::buildProviderRow()
{
	googleButton = addProvider(QStringLiteral("Google"), QStringLiteral("google"), kGoogleStyle);
	twitchButton = addProvider(QStringLiteral("Twitch"), QStringLiteral("twitch"), kTwitchStyle);
	kickButton = addProvider(QStringLiteral("Kick"), QStringLiteral("kick"), kKickStyle);

	auto *container = new QWidget();
	auto *row = new QHBoxLayout(container);
	dock::removeMargins(row);
	row->addWidget(googleButton);
	row->addWidget(twitchButton);
	row->addWidget(kickButton);
	return container;
}

QPushButton *SignInPanel::addProvider(const QString &name, const QString &provider, const char *styleSheet)
{
	QPushButton *made = dock::button(name, styleSheet);
	connect(made, &QPushButton::clicked, this, [this, provider] { onOAuthLoginClicked(provider); });
	return made;
}

QWidget *SignInPanel::buildApiKeyRow()
{
	apiKeyEdit = lineEdit(QStringLiteral("tak_live_..."));
	apiKeyEdit->setEchoMode(QLineEdit::Password);
	apiKeyEdit->setToolTip(dock::text("Dock.Auth.ApiKeyTip"));
	apiKeyEdit->setAccessibleName(apiKeyEdit->toolTip());
	QPushButton *connectButton = dock::button(dock::text("Dock.Auth.ConnectApiKey"), kConnectStyle);
	connect(connectButton, &QPushButton::clicked, this, &SignInPanel::onApiKeyConnectClicked);

	apiKeyRow = new QWidget();
	auto *rows = new QVBoxLayout(apiKeyRow);
	dock::removeMargins(rows);
	rows->addWidget(apiKeyEdit);
	rows->addWidget(connectButton);
	apiKeyRow->hide();
	return apiKeyRow;
}

bool SignInPanel::eventFilter(QObject *watched, QEvent *event)
{
	if (watched == passwordEdit && event->type() == QEvent::KeyPress) {
		// Enter held down is one attempt: services lock an account after a few wrong passwords.
		const auto *pressed = static_cast<QKeyEvent *>(event);
		if (pressed->isAutoRepeat() && (pressed->key() == Qt::Key_Return || pressed->key() == Qt::Key_Enter)) {
			return true;
		}
	}
	return QWidget::eventFilter(watched, event);
}

void SignInPanel::reset()
{
	setSignInButtonsEnabled(true);
	emailEdit->setEnabled(true);
	passwordEdit->setEnabled(true);
	apiKeyRow->hide();
}

void SignInPanel::takeKeyboard()
{
	emailEdit->setFocus(Qt::OtherFocusReason);
}

void SignInPanel::forgetSecrets()
{
	apiKeyEdit->clear();
	passwordEdit->clear();
}

void SignInPanel::abandon()
{
	signInMessageLabel->hide();
	abandonEmailSignIn(dockWidget);
	abandonBrowserSignIn();
}

void SignInPanel::abandonBrowserSignIn()
{
	if (oauthListener) {
		OAuthListener *abandoned = std::exchange(oauthListener, nullptr);
		abandoned->disconnect(this);
		abandoned->abort();
		abandoned->deleteLater();
	}
}

void SignInPanel::end()
{
	abandonEmailSignIn(dockWidget);
	if (oauthListener) {
		// Aborting reports a failure, which takes the listener away.
		oauthListener->abort();
		delete std::exchange(oauthListener, nullptr);
	}
}

/** Under the sign-in, since the status row is not to be seen while signed out. */
void SignInPanel::showSignInMessage(const QString &text)
{
	Q_EMIT messageChanged(text);
	signInMessageLabel->setText(text);
	signInMessageLabel->show();
}

void SignInPanel::setSignInButtonsEnabled(bool enabled)
{
	for (QPushButton *one : {signInButton, googleButton, twitchButton, kickButton}) {
		one->setEnabled(enabled);
	}
}

void SignInPanel::signInWith(const QString &apiKey, int maxTargetLanguages)
{
	plugin.setApiKey(apiKey);
	if (maxTargetLanguages > 0) {
		plugin.setMaxTargetLanguages(maxTargetLanguages);
	}
}

// E-mail and password

void SignInPanel::onEmailLoginClicked()
{
	const QString email = emailEdit->text().trimmed();
	const QString password = passwordEdit->text();
	if (email.isEmpty() || password.isEmpty()) {
		showSignInMessage(dock::redText(dock::text("Status.EnterCredentials")));
		return;
	}
	setSignInButtonsEnabled(false);
	showSignInMessage(dock::text("Dock.Auth.SigningIn"));
	signInByEmail(email, password, dockWidget,
		      [this](const EmailSignInAnswer &answer) { handleEmailAnswer(answer); });
}

void SignInPanel::handleEmailAnswer(const EmailSignInAnswer &answer)
{
	if (!answer.failure.isEmpty()) {
		onEmailLoginFinished();
		talvora_log(LOG_WARNING, "PluginDock: email login failed: %s", answer.failure.toUtf8().constData());
		showSignInMessage(dock::redText(dock::cutAndEscape(answer.failure, kSignInErrorLength)));
		return;
	}
	if (answer.key.isEmpty()) {
		// The buttons stay disabled until the user signs out.
		showSignInMessage(dock::redText(dock::text("Status.NoTokenInResponse")));
		return;
	}
	talvora_log(LOG_INFO, "PluginDock: email login succeeded");
	signInWith(answer.key, answer.maxTargetLanguages);
	passwordEdit->clear();
	Q_EMIT signedIn();
}

void SignInPanel::onEmailLoginFinished()
{
	setSignInButtonsEnabled(true);
}

// Google, Twitch, Kick

void SignInPanel::onOAuthLoginClicked(const QString &provider)
{
	if (oauthListener) {
		OAuthListener *previous = std::exchange(oauthListener, nullptr);
		previous->abort();
		previous->deleteLater();
	}
	oauthListener = new OAuthListener(dockWidget);
	connect(oauthListener, &OAuthListener::loginSucceeded, this, &SignInPanel::onOAuthSuccess);
	connect(oauthListener, &OAuthListener::loginFailed, this, &SignInPanel::onOAuthFailed);
	setSignInButtonsEnabled(false);
	showSignInMessage(dock::text("Status.OpeningLogin").replace(QLatin1String("%1"), provider));
	oauthListener->startLogin(provider);
}

void SignInPanel::onOAuthSuccess(const QString &apiKey, int maxTargetLanguages)
{
	talvora_log(LOG_INFO, "PluginDock: OAuth login succeeded");
	signInWith(apiKey, maxTargetLanguages);
	if (oauthListener) {
		std::exchange(oauthListener, nullptr)->deleteLater();
	}
	Q_EMIT signedIn();
}

void SignInPanel::onOAuthFailed(const QString &error)
{
	talvora_log(LOG_WARNING, "PluginDock: OAuth login failed: %s", error.toUtf8().constData());
	showSignInMessage(dock::redText(dock::cutAndEscape(error, kSignInErrorLength)));
	if (oauthListener) {
		std::exchange(oauthListener, nullptr)->deleteLater();
	}
	setSignInButtonsEnabled(true);
}

// API key

void SignInPanel::onShowApiKeyClicked()
{
	apiKeyRow->setVisible(apiKeyRow->isHidden());
}

void SignInPanel::onApiKeyConnectClicked()
{
	const QString key = apiKeyEdit->text().trimmed();
	if (key.isEmpty()) {
		// open(), not exec(): OBS may exit while the box is open, and then deletes it together with the dock.
		auto *box = new QMessageBox(QMessageBox::Warning, dock::text("Error.NoApiKey.Title"),
					    dock::text("Error.NoApiKey.Text"), QMessageBox::Ok, dockWidget);
		box->setAttribute(Qt::WA_DeleteOnClose);
		box->open();
		return;
	}
	plugin.setApiKey(key);
	Q_EMIT signedIn();
}
