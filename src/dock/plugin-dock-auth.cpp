// SPDX-License-Identifier: GPL-2.0-or-later
#include "dock/plugin-dock.h"

#include "core/talvora-plugin.h"
#include "deployment.h"
#include "dock/plugin-dock-widgets.h"
#include "plugin-support.h"
#include "sign-in/oauth-listener.h"

#include <QHBoxLayout>
#include <QJsonDocument>
#include <QJsonObject>
#include <QLabel>
#include <QLineEdit>
#include <QMessageBox>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QPushButton>
#include <QVBoxLayout>

#include <utility>

namespace {

constexpr qsizetype kSignInErrorLength = 60;

constexpr auto kLogoutStyle = "QPushButton { color: #888; font-size: 11px; border: none; text-decoration: underline; "
			      "padding: 0px; }QPushButton:hover { color: #f44336; }";
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

QPushButton *button(const QString &text, const char *styleSheet = "")
{
	auto *made = new QPushButton(text);
	made->setCursor(Qt::PointingHandCursor);
	made->setStyleSheet(QString::fromUtf8(styleSheet));
	return made;
}

QPushButton *flatButton(const char *key, const char *styleSheet)
{
	QPushButton *made = button(dock::text(key), styleSheet);
	made->setFlat(true);
	return made;
}

QLineEdit *lineEdit(const QString &placeholder)
{
	auto *made = new QLineEdit();
	made->setPlaceholderText(placeholder);
	made->setAccessibleName(placeholder);
	return made;
}

/** The first of the names services use for a key that holds one; empty when none does. */
QString keyOf(const QJsonObject &answer)
{
	for (const auto *name : {"token", "api_key", "key"}) {
		const QString key = answer.value(QLatin1String(name)).toString();
		if (!key.isEmpty()) {
			return key;
		}
	}
	return {};
}

} // namespace

QWidget *PluginDock::buildAuthSection()
{
	auto *title = new QLabel(dock::text("Dock.Auth.Title"));
	QFont bold = title->font();
	bold.setWeight(QFont::Bold);
	title->setFont(bold);
	logoutButton = flatButton("Dock.Auth.Logout", kLogoutStyle);
	logoutButton->hide();
	connect(logoutButton, &QPushButton::clicked, this, &PluginDock::onLogoutClicked);

	auto *header = new QHBoxLayout();
	header->addWidget(title);
	header->addStretch();
	header->addWidget(logoutButton);

	auto *section = new QWidget();
	// OBS's themes fill every button, links too.
	section->setStyleSheet(QStringLiteral("QPushButton:flat { background-color: transparent; }"));
	auto *rows = new QVBoxLayout(section);
	dock::removeMargins(rows);
	rows->addLayout(header);
	rows->addWidget(buildLoginPanel());
	rows->addWidget(buildSessionPanel());
	return section;
}

QWidget *PluginDock::buildLoginPanel()
{
	emailEdit = lineEdit(dock::text("Dock.Auth.Email"));
	passwordEdit = lineEdit(dock::text("Dock.Auth.Password"));
	passwordEdit->setEchoMode(QLineEdit::Password);
	passwordEdit->installEventFilter(this);
	connect(passwordEdit, &QLineEdit::returnPressed, this, &PluginDock::onEmailLoginClicked);
	signInButton = button(dock::text("Dock.Auth.SignIn"), kSignInStyle);
	connect(signInButton, &QPushButton::clicked, this, &PluginDock::onEmailLoginClicked);

	QLabel *otherWays = dock::label("Dock.Auth.OrSignInWith");
	otherWays->setStyleSheet(QStringLiteral("color: gray; font-size: 11px; margin: 4px 0;"));
	QPushButton *useApiKey = flatButton("Dock.Auth.UseApiKey", kUseApiKeyStyle);
	connect(useApiKey, &QPushButton::clicked, this, &PluginDock::onShowApiKeyClicked);

	signInMessageLabel = new QLabel();
	signInMessageLabel->setWordWrap(true);
	signInMessageLabel->setSizePolicy(QSizePolicy::Ignored, QSizePolicy::Preferred);
	signInMessageLabel->hide();

	loginPanel = new QWidget();
	auto *rows = new QVBoxLayout(loginPanel);
	dock::removeMargins(rows);
	rows->addWidget(emailEdit);
	rows->addWidget(passwordEdit);
	rows->addWidget(signInButton);
	rows->addWidget(otherWays);
	rows->addWidget(buildProviderRow());
	rows->addWidget(useApiKey, 0, Qt::AlignCenter);
	rows->addWidget(buildApiKeyRow());
	rows->addWidget(signInMessageLabel);
	return loginPanel;
}

/** The status row is not to be seen while signed out, so what it says is shown below the sign-in as well. */
void PluginDock::showSignInMessage(const QString &text)
{
	statusLabel->setText(text);
	signInMessageLabel->setText(text);
	signInMessageLabel->show();
}

QWidget *PluginDock::buildProviderRow()
{
	auto *container = new QWidget();
	auto *row = new QHBoxLayout(container);
	dock::removeMargins(row);
	const auto add = [this, row](const QString &text, const QString &provider, const char *styleSheet) {
		QPushButton *made = button(text, styleSheet);
		connect(made, &QPushButton::clicked, this, [this, provider] { onOAuthLoginClicked(provider); });
		row->addWidget(made);
		return made;
	};
	googleButton = add(QStringLiteral("Google"), QStringLiteral("google"), kGoogleStyle);
	twitchButton = add(QStringLiteral("Twitch"), QStringLiteral("twitch"), kTwitchStyle);
	kickButton = add(QStringLiteral("Kick"), QStringLiteral("kick"), kKickStyle);
	return container;
}

QWidget *PluginDock::buildApiKeyRow()
{
	apiKeyEdit = lineEdit(QStringLiteral("tak_live_..."));
	apiKeyEdit->setEchoMode(QLineEdit::Password);
	apiKeyEdit->setToolTip(dock::text("Dock.Auth.ApiKeyTip"));
	apiKeyEdit->setAccessibleName(apiKeyEdit->toolTip());
	QPushButton *connectButton = button(dock::text("Dock.Auth.ConnectApiKey"), kConnectStyle);
	connect(connectButton, &QPushButton::clicked, this, &PluginDock::onApiKeyConnectClicked);

	apiKeyRow = new QWidget();
	auto *rows = new QVBoxLayout(apiKeyRow);
	dock::removeMargins(rows);
	rows->addWidget(apiKeyEdit);
	rows->addWidget(connectButton);
	apiKeyRow->hide();
	return apiKeyRow;
}

QWidget *PluginDock::buildSessionPanel()
{
	startButton = button(dock::text("Dock.Auth.StartTranslating"));
	connect(startButton, &QPushButton::clicked, this, &PluginDock::onStartClicked);
	stopButton = button(dock::text("Dock.Auth.StopTranslating"));
	connect(stopButton, &QPushButton::clicked, this, &PluginDock::onStopClicked);
	auto *buttons = new QHBoxLayout();
	buttons->addWidget(startButton);
	buttons->addWidget(stopButton);

	statusDot = new QLabel(QStringLiteral("●"));
	statusDot->setStyleSheet(QStringLiteral("color: gray; font-size: 16px;"));
	statusLabel = dock::label("Status.Disconnected");
	// Messages from outside take the room there is, however long their words are.
	statusLabel->setSizePolicy(QSizePolicy::Ignored, QSizePolicy::Preferred);
	clockLabel = new QLabel(QStringLiteral("00:00:00"));
	clockLabel->setStyleSheet(QStringLiteral("color: gray;"));
	clockLabel->setSizePolicy(QSizePolicy::Fixed, QSizePolicy::Preferred);
	auto *status = new QHBoxLayout();
	status->addWidget(statusDot, 0);
	status->addWidget(statusLabel, 1);
	status->addWidget(clockLabel, 0);

	sessionPanel = new QWidget();
	auto *rows = new QVBoxLayout(sessionPanel);
	dock::removeMargins(rows);
	rows->addLayout(buttons);
	rows->addLayout(status);
	sessionPanel->hide();
	return sessionPanel;
}

void PluginDock::setAuthenticated(bool on)
{
	authenticated = on;
	loginPanel->setVisible(!on);
	signInMessageLabel->hide();
	sessionPanel->setVisible(on);
	logoutButton->setVisible(on);
	abandonEmailSignIn();
	if (on) {
		abandonBrowserSignIn();
		statusLabel->setText(dock::text("Status.Ready"));
		updateStatusIndicator(plugin->wsState());
		return;
	}
	setSignInButtonsEnabled(true);
	emailEdit->setEnabled(true);
	passwordEdit->setEnabled(true);
	apiKeyRow->hide();
}

void PluginDock::abandonBrowserSignIn()
{
	if (oauthListener) {
		OAuthListener *abandoned = std::exchange(oauthListener, nullptr);
		abandoned->disconnect(this);
		abandoned->abort();
		abandoned->deleteLater();
	}
}

void PluginDock::abandonEmailSignIn()
{
	const auto attempts = findChildren<QNetworkAccessManager *>(Qt::FindDirectChildrenOnly);
	for (QNetworkAccessManager *network : attempts) {
		const auto replies = network->findChildren<QNetworkReply *>();
		for (QNetworkReply *reply : replies) {
			reply->disconnect(this);
			reply->abort();
		}
		network->deleteLater();
	}
}

void PluginDock::setSignInButtonsEnabled(bool enabled)
{
	for (QPushButton *one : {signInButton, googleButton, twitchButton, kickButton}) {
		if (one) {
			one->setEnabled(enabled);
		}
	}
}

void PluginDock::signInWith(const QString &apiKey, int maxTargetLanguages)
{
	plugin->setApiKey(apiKey);
	if (maxTargetLanguages > 0) {
		plugin->setMaxTargetLanguages(maxTargetLanguages);
	}
}

// E-mail and password

void PluginDock::onEmailLoginClicked()
{
	const QString email = emailEdit->text().trimmed();
	const QString password = passwordEdit->text();
	if (email.isEmpty() || password.isEmpty()) {
		showSignInMessage(dock::redText(dock::text("Status.EnterCredentials")));
		return;
	}
	setSignInButtonsEnabled(false);
	showSignInMessage(dock::text("Dock.Auth.SigningIn"));

	auto *network = new QNetworkAccessManager(this);
	QNetworkRequest request(QUrl(QStringLiteral("%1/login").arg(QLatin1String(kSignInBaseUrl))));
	request.setHeader(QNetworkRequest::ContentTypeHeader, QStringLiteral("application/json"));
	// What a redirect repeats is the password.
	request.setAttribute(QNetworkRequest::RedirectPolicyAttribute, QNetworkRequest::SameOriginRedirectPolicy);
	const QJsonObject credentials{{QStringLiteral("email"), email}, {QStringLiteral("password"), password}};
	QNetworkReply *reply = network->post(request, QJsonDocument(credentials).toJson(QJsonDocument::Compact));
	connect(reply, &QNetworkReply::finished, this, [this, reply, network] {
		reply->deleteLater();
		network->deleteLater();
		handleEmailLoginReply(reply);
	});
}

void PluginDock::handleEmailLoginReply(QNetworkReply *reply)
{
	const QByteArray body = reply->readAll();
	if (reply->error() != QNetworkReply::NoError) {
		onEmailLoginFinished();
		const QString message = body.isEmpty() ? reply->errorString() : QString::fromUtf8(body);
		talvora_log(LOG_WARNING, "PluginDock: email login failed: %s", message.toUtf8().constData());
		showSignInMessage(dock::redText(dock::cutAndEscape(message, kSignInErrorLength)));
		return;
	}

	const QJsonObject answer = QJsonDocument::fromJson(body).object();
	const QString key = keyOf(answer);
	if (key.isEmpty()) {
		// The buttons stay disabled until the user signs out.
		showSignInMessage(dock::redText(dock::text("Status.NoTokenInResponse")));
		return;
	}
	talvora_log(LOG_INFO, "PluginDock: email login succeeded");
	signInWith(key, answer.value(QLatin1String("max_target_languages")).toInt());
	passwordEdit->clear();
	setAuthenticated(true);
}

void PluginDock::onEmailLoginFinished()
{
	setSignInButtonsEnabled(true);
}

// Google, Twitch, Kick

void PluginDock::onOAuthLoginClicked(const QString &provider)
{
	if (oauthListener) {
		OAuthListener *previous = std::exchange(oauthListener, nullptr);
		previous->abort();
		previous->deleteLater();
	}
	oauthListener = new OAuthListener(this);
	connect(oauthListener, &OAuthListener::loginSucceeded, this, &PluginDock::onOAuthSuccess);
	connect(oauthListener, &OAuthListener::loginFailed, this, &PluginDock::onOAuthFailed);
	setSignInButtonsEnabled(false);
	showSignInMessage(dock::text("Status.OpeningLogin").replace(QLatin1String("%1"), provider));
	oauthListener->startLogin(provider);
}

void PluginDock::onOAuthSuccess(const QString &apiKey, int maxTargetLanguages)
{
	talvora_log(LOG_INFO, "PluginDock: OAuth login succeeded");
	signInWith(apiKey, maxTargetLanguages);
	if (oauthListener) {
		std::exchange(oauthListener, nullptr)->deleteLater();
	}
	setAuthenticated(true);
}

void PluginDock::onOAuthFailed(const QString &error)
{
	talvora_log(LOG_WARNING, "PluginDock: OAuth login failed: %s", error.toUtf8().constData());
	if (statusLabel) {
		showSignInMessage(dock::redText(dock::cutAndEscape(error, kSignInErrorLength)));
	}
	if (oauthListener) {
		std::exchange(oauthListener, nullptr)->deleteLater();
	}
	setSignInButtonsEnabled(true);
}

// API key

void PluginDock::onShowApiKeyClicked()
{
	apiKeyRow->setVisible(apiKeyRow->isHidden());
}

void PluginDock::onApiKeyConnectClicked()
{
	const QString key = apiKeyEdit->text().trimmed();
	if (key.isEmpty()) {
		// Not within a loop of its own: OBS can end while the box is open, and takes it away with the dock.
		auto *box = new QMessageBox(QMessageBox::Warning, dock::text("Error.NoApiKey.Title"),
					    dock::text("Error.NoApiKey.Text"), QMessageBox::Ok, this);
		box->setAttribute(Qt::WA_DeleteOnClose);
		box->open();
		return;
	}
	plugin->setApiKey(key);
	setAuthenticated(true);
}

void PluginDock::onLogoutClicked()
{
	plugin->stopSession();
	plugin->setApiKey(QString());
	plugin->resetMaxTargetLanguages();
	apiKeyEdit->clear();
	passwordEdit->clear();
	setAuthenticated(false);
}
