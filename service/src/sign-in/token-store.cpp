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
	if (m_tokens.size() >= kMostTokens) {
		m_tokens.removeFirst();
	}
	m_tokens.append({QStringLiteral("tak_live_") + randomId(), maxTargetLanguages});
	return m_tokens.last().text;
}

std::optional<int> TokenStore::maxTargetLanguages(const QString &token) const
{
	const auto found =
		std::find_if(m_tokens.begin(), m_tokens.end(), [&](const Token &each) { return each.text == token; });
	return found == m_tokens.end() ? std::nullopt : std::make_optional(found->maxTargetLanguages);
}
