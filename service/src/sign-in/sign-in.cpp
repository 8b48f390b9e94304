// SPDX-License-Identifier: GPL-3.0-or-later
#include "sign-in/sign-in.h"

#include "sign-in/consent-page.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>

#include <algorithm>
#include <optional>
#include <utility>

namespace {

const QString kLoginPath = QStringLiteral("/auth/login");
const QString kProviderPath = QStringLiteral("/auth/");
constexpr qsizetype kLongestRedirectUri = 1024;

/** The name that people know a provider by; empty for one that is not offered. */
QString providerName(const QString &provider)
{
	static const QHash<QString, QString> names{{"google", "Google"}, {"twitch", "Twitch"}, {"kick", "Kick"}};
	return names.value(provider);
}

/** Clients show the body of a refusal to their user as it is. */
HttpResponse refusal(int status, const QByteArray &sentence)
{
	return {status, "text/plain; charset=utf-8", sentence, {}};
}

HttpResponse methodNotAllowed(const QByteArray &allowed)
{
	HttpResponse response = refusal(405, "This address is not meant to be used like that.");
	response.headers.append({"Allow", allowed});
	return response;
}

HttpResponse htmlPage(int status, const QByteArray &page)
{
	// No "form-action": browsers apply it to the redirect that answers the form, too.
	return {status,
		"text/html; charset=utf-8",
		page,
		{{"Content-Security-Policy",
		  "default-src 'none'; style-src 'unsafe-inline'; base-uri 'none'; frame-ancestors 'none'"},
		 {"Referrer-Policy", "no-referrer"}}};
}

QByteArray mediaType(const HttpRequest &request)
{
	return request.headers.value("content-type").split(';').first().trimmed().toLower();
}

/** The one value of an item; nothing when it is missing or given more than once. */
std::optional<QString> single(const QUrlQuery &query, const QString &name)
{
	const QStringList values = query.allQueryItemValues(name, QUrl::FullyDecoded);
	return values.size() == 1 ? std::make_optional(values.first()) : std::nullopt;
}

/** A query as browsers write it, where "+" is a blank. */
QUrlQuery queryOf(QByteArray encoded)
{
	return QUrlQuery(QString::fromLatin1(encoded.replace('+', "%20")));
}

bool isSaneState(const QString &state)
{
	static const QRegularExpression form(QStringLiteral("\\A[A-Za-z0-9._~-]{16,256}\\z"));
	return form.match(state).hasMatch();
}

/** Whether the address is one of this machine: the key must not be sent anywhere else. */
bool isLoopback(const QUrl &uri)
{
	static const QStringList hosts{"localhost", "127.0.0.1", "::1"};
	return uri.isValid() && uri.scheme() == QLatin1String("http") && hosts.contains(uri.host()) &&
	       uri.userInfo().isEmpty() && !uri.hasFragment() && uri.port(80) > 0;
}

} // namespace

SignIn::SignIn(const QSslConfiguration &tls, Settings settings_, TokenStore &tokens_, EventLog &events_,
	       QObject *parent)
	: QObject(parent), settings(std::move(settings_)), tokens(tokens_), events(events_),
	  http(
		  tls,
		  [this](const HttpRequest &request, const HttpServer::Answer &answer) { handle(request, answer); },
		  settings.timeoutMs)
{
	checks.setMaxThreadCount(1);
}

QString SignIn::url() const
{
	return QStringLiteral("https://localhost:%1/auth").arg(http.port());
}

void SignIn::handle(const HttpRequest &request, const HttpServer::Answer &answer)
{
	const QList<QByteArray> parts = request.target.split('?');
	const QByteArray &path = parts.first();
	const QByteArray query = parts.mid(1).join('?');
	if (path == kLoginPath.toLatin1()) {
		login(request, answer);
		return;
	}
	const QString provider = QString::fromLatin1(path).mid(kProviderPath.size());
	if (!path.startsWith(kProviderPath.toLatin1()) || providerName(provider).isEmpty()) {
		answer(refusal(404, "There is no such page."));
	} else if (request.method == "GET") {
		answer(askForConsent(provider, queryOf(query)));
	} else if (request.method == "POST") {
		answer(consentGiven(provider, request));
	} else {
		answer(methodNotAllowed("GET, POST"));
	}
}

void SignIn::login(const HttpRequest &request, const HttpServer::Answer &answer)
{
	if (request.method != "POST") {
		answer(methodNotAllowed("POST"));
		return;
	}
	if (mediaType(request) != "application/json") {
		answer(refusal(415, "The request is not JSON."));
		return;
	}
	const QJsonObject body = QJsonDocument::fromJson(request.body).object();
	const QString email = body.value("email").toString().trimmed();
	const QString password = body.value("password").toString();
	if (email.isEmpty() || password.isEmpty()) {
		answer(refusal(400, "The request is not valid."));
		return;
	}
	checkPassword(email, password, [this, answer](const HttpResponse &response) {
		events.write("sign_in", 0, {{"by", "email"}, {"status", response.status}});
		answer(response);
	});
}

void SignIn::checkPassword(const QString &email, const QString &password, const HttpServer::Answer &answer)
{
	// An unknown address is refused as late as a wrong password, so that the time does not tell who has an account.
	static const Account nobody = *Accounts::demo().find("demo@talvora.local");
	const Account *account = settings.accounts.find(email);
	checks.start(
		[this, account = account ? *account : nobody, known = account != nullptr, email, password, answer] {
			const bool right = account.hasPassword(password) && known;
			QMetaObject::invokeMethod(
				this, [this, email, right, answer] { answer(passwordChecked(email, right)); },
				Qt::QueuedConnection);
		});
}

HttpResponse SignIn::passwordChecked(const QString &email, bool right)
{
	const Account *account = settings.accounts.find(email);
	if (account && account->fails) {
		return refusal(500, "The sign-in service failed. Please try again later.");
	}
	if (!account) {
		return refusal(401, "Wrong e-mail address or password.");
	}
	int &wrong = wrongPasswords[account->email];
	if (account->locked || wrong >= kMostWrongPasswords) {
		return refusal(423, "This account is locked.");
	}
	if (!right) {
		++wrong;
		return refusal(401, "Wrong e-mail address or password.");
	}
	wrong = 0;
	return loggedIn(*account);
}

HttpResponse SignIn::loggedIn(const Account &account)
{
	const int limit = limitFor(account.maxTargetLanguages);
	const QJsonObject body{{"token", tokens.issue(limit)}, {"max_target_languages", limit}};
	return {200, "application/json", QJsonDocument(body).toJson(QJsonDocument::Compact), {}};
}

HttpResponse SignIn::askForConsent(const QString &provider, const QUrlQuery &query)
{
	const std::optional<QString> state = single(query, "state");
	const std::optional<QString> redirectUri = single(query, "redirect_uri");
	if (!state || !isSaneState(*state)) {
		return htmlPage(400, failurePage("The request has no usable state."));
	}
	const QUrl uri(redirectUri.value_or(QString()), QUrl::StrictMode);
	if (!redirectUri || redirectUri->size() > kLongestRedirectUri || !isLoopback(uri)) {
		return htmlPage(400, failurePage("The address to return to is not on this machine."));
	}
	if (consents.size() >= kMostConsents) {
		consents.removeFirst();
	}
	consents.append({randomId(), provider, uri, *state});
	return htmlPage(200, consentPage(providerName(provider), consents.last().id));
}

HttpResponse SignIn::consentGiven(const QString &provider, const HttpRequest &request)
{
	const QUrlQuery form = queryOf(request.body);
	const QString id = single(form, "consent").value_or(QString());
	const QString decision = single(form, "decision").value_or(QString());
	const auto found = std::find_if(consents.begin(), consents.end(), [&](const Consent &each) {
		return each.id == id && each.provider == provider;
	});
	if (mediaType(request) != "application/x-www-form-urlencoded" || found == consents.end() ||
	    (decision != QLatin1String("allow") && decision != QLatin1String("decline"))) {
		return htmlPage(400, failurePage("This page is no longer valid. Please sign in again in OBS."));
	}
	const Consent consent = std::move(*found);
	consents.erase(found);
	QUrlQuery query(consent.redirectUri);
	query.addQueryItem("state", consent.state);
	if (decision == QLatin1String("allow")) {
		const int limit = limitFor(0);
		query.addQueryItem("token", tokens.issue(limit));
		query.addQueryItem("max_target_languages", QString::number(limit));
	} else {
		query.addQueryItem("error", "Sign-in was declined");
	}
	events.write("sign_in", 0, {{"by", provider}, {"status", decision == QLatin1String("allow") ? 200 : 401}});
	QUrl target = consent.redirectUri;
	target.setQuery(query);
	HttpResponse response = refusal(302, "");
	response.headers.append({"Location", target.toEncoded()});
	return response;
}

int SignIn::limitFor(int ownLimit) const
{
	return ownLimit > 0 ? ownLimit : settings.maxTargetLanguages;
}
