// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QJsonObject>
#include <QObject>
#include <QWebSocket>

/** One client's WebSocket, with the limits that keep a careless or hostile client from costing more than itself. */
class Connection : public QObject {
	Q_OBJECT

public:
	/** Longest message that is read, bytes. */
	static constexpr quint64 kLongestMessage = 256 * 1024;
	/** What a client may leave unread, bytes; beyond it the connection is dropped. */
	static constexpr qint64 kMostUnread = 16 * 1024 * 1024;
	/** The client is asked how far it has read after so many bytes. */
	static constexpr qint64 kPingEvery = 1024 * 1024;

	/** Takes the socket over. */
	Connection(int number, QWebSocket *socket, QObject *parent);

	[[nodiscard]] int number() const { return number_; }
	[[nodiscard]] QString path() const;
	[[nodiscard]] QString userAgent() const;

	void sendJson(const QJsonObject &message);
	void sendText(const QString &text);
	void sendBinary(const QByteArray &frame);
	/** Orderly end with a closing handshake; a client that does not answer it is dropped after 5 s. */
	void close(QWebSocketProtocol::CloseCode code, const QString &reason = {});
	/**
	 * Ends the connection without a closing handshake; what was sent before still arrives unless the client is
	 * slow.
	 */
	void drop();

Q_SIGNALS:
	void textReceived(const QString &text);
	void binaryReceived(const QByteArray &frame);
	/** The last signal. The code is the WebSocket close code. */
	void ended(int closeCode);

private:
	[[nodiscard]] bool isOpen() const { return socket->state() == QAbstractSocket::ConnectedState; }
	void countSent(qint64 bytes);
	void onPong(const QByteArray &payload);

	int number_;
	QWebSocket *socket;
	/** Bytes given to the socket. */
	qint64 sent = 0;
	/** The last ping was sent after so many of them. */
	qint64 asked = 0;
	/** So many of them have arrived for certain. */
	qint64 read = 0;
	/** The end was asked for on this side. */
	bool closing = false;
};
