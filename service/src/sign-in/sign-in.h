// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "base/event-log.h"
#include "sign-in/accounts.h"
#include "sign-in/http-server.h"
#include "sign-in/token-store.h"

#include <QHash>
#include <QList>
#include <QObject>
#include <QThreadPool>
#include <QUrl>
#include <QUrlQuery>

/**
 * The web sign-in at https://localhost:PORT/auth: e-mail and password, and pages that stand in for providers'.
 * Passwords are checked on a thread of their own.
 */
class SignIn : public QObject {
	Q_OBJECT

public:
	/** Wrong passwords in a row after which an account is locked until the service ends. */
	static constexpr int kMostWrongPasswords = 5;
	/** Consent pages that may be open; further ones make the oldest invalid. */
	static constexpr qsizetype kMostConsents = 100;

	struct Settings {
		Accounts accounts;
		/** For those who have no limit of their own; below 1: none. */
		int maxTargetLanguages = 0;
		/** A client is given so long for its request. */
		int timeoutMs = 10000;
	};

	/** `tokens` and `events` outlive this object. */
	SignIn(const QSslConfiguration &tls, Settings settings, TokenStore &tokens, EventLog &events,
	       QObject *parent = nullptr);

	/** Listens on 127.0.0.1; port 0 takes a free one. False when the port is taken: see errorString(). */
	bool listen(quint16 port) { return http.listen(port); }
	[[nodiscard]] QString errorString() const { return http.errorString(); }
	/** The base address, with the port in use. */
	[[nodiscard]] QString url() const;
	/** Answers one request, now or later; listen() brings them from the network. */
	void handle(const HttpRequest &request, const HttpServer::Answer &answer);

private:
	/** A consent page that was shown and not answered yet. */
	struct Consent {
		QString id;
		QString provider;
		QUrl redirectUri;
		QString state;
	};

	void login(const HttpRequest &request, const HttpServer::Answer &answer);
	void checkPassword(const QString &email, const QString &password, const HttpServer::Answer &answer);
	[[nodiscard]] HttpResponse passwordChecked(const QString &email, bool right);
	[[nodiscard]] HttpResponse loggedIn(const Account &account);
	[[nodiscard]] HttpResponse askForConsent(const QString &provider, const QUrlQuery &query);
	[[nodiscard]] HttpResponse consentGiven(const QString &provider, const HttpRequest &request);
	[[nodiscard]] int limitFor(int ownLimit) const;

	Settings settings;
	TokenStore &tokens;
	EventLog &events;
	/** By address of an account, in a row. */
	QHash<QString, int> wrongPasswords;
	/** Oldest first. */
	QList<Consent> consents;
	HttpServer http;
	/** Last: its jobs end before the rest. */
	QThreadPool checks;
};
