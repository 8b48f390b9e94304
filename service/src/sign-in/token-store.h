// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QList>
#include <QString>

#include <optional>

/** The API keys that were handed out at sign-in. They are valid until the service ends; of very many, the newest. */
class TokenStore {
public:
	static constexpr qsizetype kMostTokens = 1000;

	/** A new key: "tak_live_" and 32 hexadecimal digits of the system's randomness. */
	QString issue(int maxTargetLanguages);
	/** The limit that came with a key, 0 for none; nothing for a key that was not handed out. */
	[[nodiscard]] std::optional<int> maxTargetLanguages(const QString &token) const;

private:
	struct Token {
		QString text;
		int maxTargetLanguages = 0;
	};
	QList<Token> tokens;
};

/** 32 hexadecimal digits of the system's randomness. */
QString randomId();
