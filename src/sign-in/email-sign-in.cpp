// SPDX-License-Identifier: GPL-2.0-or-later
#include "sign-in/email-sign-in.h"

#include "deployment.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QUrl>

#include <utility>

namespace {

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

EmailSignInAnswer answerOf(QNetworkReply &reply)
{
	const QByteArray body = reply.readAll();
	if (reply.error() == QNetworkReply::NoError) {
		return readEmailSignInAnswer(body);
	}
	EmailSignInAnswer answer;
	answer.failure = body.isEmpty() ? reply.errorString() : QString::fromUtf8(body);
	return answer;
}

} // namespace

EmailSignInAnswer readEmailSignInAnswer(const QByteArray &body)
{
	const QJsonObject object = QJsonDocument::fromJson(body).object();
	EmailSignInAnswer answer;
	answer.key = keyOf(object);
	answer.maxTargetLanguages = object.value(QLatin1String("max_target_languages")).toInt();
	return answer;
}

void signInByEmail(const QString &email, const QString &password, QObject *owner,
		   std::function<void(const EmailSignInAnswer &)> answer)
{
	auto *network = new QNetworkAccessManager(owner);
	QNetworkRequest request(QUrl(QStringLiteral("%1/login").arg(QLatin1String(kSignInBaseUrl))));
	request.setHeader(QNetworkRequest::ContentTypeHeader, QStringLiteral("application/json"));
	// What a redirect repeats is the password.
	request.setAttribute(QNetworkRequest::RedirectPolicyAttribute, QNetworkRequest::SameOriginRedirectPolicy);
	const QJsonObject credentials{{QStringLiteral("email"), email}, {QStringLiteral("password"), password}};
	QNetworkReply *reply = network->post(request, QJsonDocument(credentials).toJson(QJsonDocument::Compact));
	QObject::connect(reply, &QNetworkReply::finished, owner, [reply, network, answer = std::move(answer)] {
		reply->deleteLater();
		network->deleteLater();
		answer(answerOf(*reply));
	});
}

void abandonEmailSignIn(QObject *owner)
{
	const auto attempts = owner->findChildren<QNetworkAccessManager *>(Qt::FindDirectChildrenOnly);
	for (QNetworkAccessManager *network : attempts) {
		const auto replies = network->findChildren<QNetworkReply *>();
		for (QNetworkReply *reply : replies) {
			reply->disconnect(owner);
			reply->abort();
		}
		network->deleteLater();
	}
}
