// SPDX-License-Identifier: GPL-2.0-or-later
#include "sign-in/http-request-head.h"

#include <QUrlQuery>

#include <algorithm>

bool hasWholeRequestHead(const QByteArray &received, qsizetype from)
{
	// The blank line may begin in the bytes that were searched before.
	return received.indexOf("\r\n\r\n", std::max<qsizetype>(from - 3, 0)) >= 0;
}

std::optional<QUrl> readRequestTarget(const QByteArray &raw)
{
	const QString text = QString::fromUtf8(raw);
	const qsizetype first = text.indexOf(u' ');
	if (first < 0) {
		return std::nullopt;
	}
	const qsizetype second = text.indexOf(u' ', first + 1);
	if (second < 0) {
		return std::nullopt;
	}
	return QUrl(QStringLiteral("http://localhost") + text.mid(first + 1, second - first - 1));
}

SignInCallback readSignInCallback(const QUrl &address)
{
	const QUrlQuery query(address);
	const auto value = [&query](const QString &name) { return query.queryItemValue(name, QUrl::FullyDecoded); };

	SignInCallback callback;
	callback.state = value(QStringLiteral("state"));
	if (query.hasQueryItem(QStringLiteral("error"))) {
		callback.error = value(QStringLiteral("error"));
	}
	for (const QString &name : {QStringLiteral("token"), QStringLiteral("api_key"), QStringLiteral("key")}) {
		callback.token = value(name);
		if (!callback.token.isEmpty()) {
			break;
		}
	}
	callback.maxTargetLanguages = value(QStringLiteral("max_target_languages")).toInt();
	return callback;
}
