// SPDX-License-Identifier: GPL-3.0-or-later
#include "sign-in/token-store.h"

#include <QRandomGenerator>

#include <algorithm>

QString randomId()
{
	return QStringLiteral("%1%2")
		.arg(QRandomGenerator::system()->generate64(), 16, 16, QLatin1Char('0'))
		.arg(QRandomGenerator::system()->generate64(), 16, 16, QLatin1Char('0'));
}

QString TokenStore::issue(int maxTargetLanguages)
{
	if (tokens.size() >= kMostTokens) {
		tokens.removeFirst();
	}
	tokens.append({QStringLiteral("tak_live_") + randomId(), maxTargetLanguages});
	return tokens.last().text;
}

std::optional<int> TokenStore::maxTargetLanguages(const QString &token) const
{
	const auto found =
		std::find_if(tokens.begin(), tokens.end(), [&](const Token &each) { return each.text == token; });
	return found == tokens.end() ? std::nullopt : std::make_optional(found->maxTargetLanguages);
}
