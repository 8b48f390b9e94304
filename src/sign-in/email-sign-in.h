// SPDX-License-Identifier: GPL-2.0-or-later
#pragma once

#include <QByteArray>
#include <QString>

#include <functional>

class QObject;

struct EmailSignInAnswer {
	/** The API key; empty when the service sent none. */
	QString key;
	/** Target languages the account allows; below 1 when the service said nothing of them. */
	int maxTargetLanguages = 0;
	/** Why the request failed, in the service's words where it has any; empty when it did not. */
	QString failure;
};

/** Reads the body of an answer that is no failure. Anything but a JSON object with a key counts as one without a key.
 */
EmailSignInAnswer readEmailSignInAnswer(const QByteArray &body);

/**
 * Asks the web sign-in for the key of an account. `answer` is called once, on this thread, unless the attempt is
 * abandoned or its owner destroyed.
 *
 * @param owner becomes the parent of what the request needs; several requests may be under way
 */
void signInByEmail(const QString &email, const QString &password, QObject *owner,
		   std::function<void(const EmailSignInAnswer &)> answer);

/** Aborts the requests of `owner` without an answer. */
void abandonEmailSignIn(QObject *owner);
