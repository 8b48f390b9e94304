// SPDX-License-Identifier: GPL-2.0-or-later
#pragma once

#include <QByteArray>
#include <QObject>
#include <QString>

class QTcpServer;
class QTcpSocket;
class QTimer;

/**
 * Signs the user in through the system browser: opens the web sign-in with a redirect to a one-shot HTTP server on
 * 127.0.0.1 (the loopback redirection of RFC 8252, section 7.3) and waits for the browser to come back with the
 * service's API key. Meanwhile nobody else can have the same port of ::1.
 *
 * An attempt that startLogin() began ends with exactly one of the two signals, or with none when another attempt
 * replaces it. It takes the first complete request, whatever that is, and no other.
 *
 * Main thread only. Receivers of the signals may end the listener with deleteLater(), but must neither delete it nor
 * start or abort an attempt on it from within the signal: the attempt is cleaned up when they return.
 */
class OAuthListener : public QObject {
	Q_OBJECT

public:
	using QObject::QObject;

	/**
	 * Begins an attempt in place of any other. Fails with loginFailed() before it returns.
	 * @param provider "google", "twitch" or "kick"
	 * @return true when the browser was opened
	 */
	bool startLogin(const QString &provider);

	/** Ends the attempt in progress, if there is one, with loginFailed(). */
	void abort();

	/** True while an attempt is in progress. */
	bool isListening() const;

Q_SIGNALS:
	/**
	 * @param apiKey the credential for the service; never empty
	 * @param maxTargetLanguages the account's allowance; 0 when not given, otherwise unchecked
	 */
	void loginSucceeded(const QString &apiKey, int maxTargetLanguages);
	/** @param error for the user; may come from outside, unescaped and of any length */
	void loginFailed(const QString &error);

private Q_SLOTS:
	void onNewConnection();
	void onTimeout();

private:
	void handleRequest(QTcpSocket *socket, const QByteArray &raw);
	void sendResponse(QTcpSocket *socket, int status, const QString &body);
	void cleanup();
	/** The oldest goes, not the newest: it is not the browser's, which sends its request at once. */
	void dropOldestOfTooMany();

	/** Null between attempts, as is the timer; both are children. The socket that holds the port of ::1 is a child
	 * of the server. */
	QTcpServer *server = nullptr;
	QTimer *timeoutTimer = nullptr;
	/** Random; a callback that brings it answers this attempt and not one that somebody else began. */
	QString expectedState;
	/** The attempt has taken its one request. */
	bool requestHandled = false;
};
