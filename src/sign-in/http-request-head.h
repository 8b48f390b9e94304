// SPDX-License-Identifier: GPL-2.0-or-later
#pragma once

#include <QByteArray>
#include <QString>
#include <QUrl>

#include <optional>

// What the loopback listener reads out of an HTTP request. Bytes from outside: nothing in here trusts them. Plain
// functions, for any thread.

/** True when a blank line ends the head within `received`; the bytes before `from` are known to hold no such end. */
bool hasWholeRequestHead(const QByteArray &received, qsizetype from = 0);

/**
 * The address a request asks for, as one of "http://localhost".
 * @param raw a request head in UTF-8, with whatever was received after it
 * @return nothing when the request line has no two spaces
 */
std::optional<QUrl> readRequestTarget(const QByteArray &raw);

/** What the web sign-in says through the browser. All values are fully decoded; a "+" is a plus sign. */
struct SignInCallback {
	/** Empty when missing. */
	QString state;
	/** Present, possibly empty, when the sign-in failed. */
	std::optional<QString> error;
	/** "token", or else "api_key", or else "key"; empty when none has a value. */
	QString token;
	/** As sent, which may be negative; 0 when missing, not a decimal number or out of an int's range. */
	int maxTargetLanguages = 0;
};

/** Reads the query of the callback's address. Of an item that is repeated, the first counts. */
SignInCallback readSignInCallback(const QUrl &address);
