// SPDX-License-Identifier: GPL-2.0-or-later
#include "dock/account-section.h"

#include "core/talvora-plugin.h"
#include "dock/dock-widgets.h"
#include "dock/session-panel.h"
#include "dock/sign-in-panel.h"

#include <QHBoxLayout>
#include <QVBoxLayout>

namespace {

constexpr auto kLogoutStyle = "QPushButton { color: #888; font-size: 11px; border: none; text-decoration: underline; "
			      "padding: 0px; }QPushButton:hover { color: #f44336; }";

QLabel *titleLabel()
{
	auto *title = new QLabel(dock::text("Dock.Auth.Title"));
	QFont bold = title->font();
	bold.setWeight(QFont::Bold);
	title->setFont(bold);
	return title;
}

} // namespace

AccountSection::AccountSection(TalvoraPlugin &owner, QWidget *dock)
	: plugin(owner), logoutButton(dock::flatButton("Dock.Auth.Logout", kLogoutStyle)),
	  signIn(new SignInPanel(plugin, dock)), session(new SessionPanel(plugin, dock))
{
	// OBS's themes fill every button, links too.
	setStyleSheet(QStringLiteral("QPushButton:flat { background-color: transparent; }"));
	logoutButton->hide();
	session->hide();
	connect(logoutButton, &QPushButton::clicked, this, &AccountSection::onLogoutClicked);
	connect(signIn, &SignInPanel::signedIn, this, [this] { setAuthenticated(true); });
	connect(signIn, &SignInPanel::messageChanged, session, &SessionPanel::showMessage);

	auto *header = new QHBoxLayout();
	header->addWidget(titleLabel());
	header->addStretch();
	header->addWidget(logoutButton);

	auto *rows = new QVBoxLayout(this);
	dock::removeMargins(rows);
	rows->addLayout(header);
	rows->addWidget(signIn);
	rows->addWidget(session);
}

void AccountSection::endSignIn()
{
	signIn->end();
}

void AccountSection::setAuthenticated(bool on)
{
	const QWidget *focused = window()->focusWidget();
	const bool hasKeyboard = isAncestorOf(focused);
	if (hasKeyboard) {
		// Hiding what has the keyboard would hand it on to the next control that is seen, a setting.
		setFocus(Qt::OtherFocusReason);
	}
	authenticated = on;
	signIn->setVisible(!on);
	session->setVisible(on);
	logoutButton->setVisible(on);
	signIn->abandon();
	if (on) {
		session->showMessage(dock::text("Status.Ready"));
		session->updateStatusIndicator(plugin.wsState());
	} else {
		signIn->reset();
	}
	if (hasKeyboard && on) {
		session->takeKeyboard();
	} else if (hasKeyboard) {
		signIn->takeKeyboard();
	}
}

void AccountSection::onLogoutClicked()
{
	plugin.stopSession();
	plugin.setApiKey(QString());
	plugin.resetMaxTargetLanguages();
	signIn->forgetSecrets();
	setAuthenticated(false);
}
