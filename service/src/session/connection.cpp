// SPDX-License-Identifier: GPL-3.0-or-later
#include "session/connection.h"

#include <QJsonDocument>
#include <QNetworkRequest>
#include <QTimer>
#include <QUrl>

namespace {

constexpr int kCloseMs = 5000;

} // namespace

Connection::Connection(int number, QWebSocket *socket_, QObject *parent)
	: QObject(parent), number_(number), socket(socket_)
{
	socket->setParent(this);
	socket->setMaxAllowedIncomingFrameSize(kLongestMessage);
	socket->setMaxAllowedIncomingMessageSize(kLongestMessage);
	connect(socket, &QWebSocket::textMessageReceived, this, &Connection::textReceived);
	connect(socket, &QWebSocket::binaryMessageReceived, this, &Connection::binaryReceived);
	// After a message that it has refused, Qt (seen in 6.11) goes on parsing what follows for many seconds: end
	// that.
	connect(socket, &QWebSocket::aboutToClose, this, [this] {
		if (!closing) {
			drop();
		}
	});
	connect(socket, &QWebSocket::pong, this, [this](quint64, const QByteArray &payload) { onPong(payload); });
	connect(socket, &QWebSocket::disconnected, this, [this] { Q_EMIT ended(socket->closeCode()); });
}

QString Connection::path() const
{
	return socket->requestUrl().path();
}

QString Connection::userAgent() const
{
	return QString::fromLatin1(socket->request().rawHeader("User-Agent"));
}

void Connection::sendJson(const QJsonObject &message)
{
	sendText(QString::fromUtf8(QJsonDocument(message).toJson(QJsonDocument::Compact)));
}

void Connection::sendText(const QString &text)
{
	if (isOpen()) {
		countSent(socket->sendTextMessage(text));
	}
}

void Connection::sendBinary(const QByteArray &frame)
{
	if (isOpen()) {
		countSent(socket->sendBinaryMessage(frame));
	}
}

void Connection::close(QWebSocketProtocol::CloseCode code, const QString &reason)
{
	if (isOpen()) {
		closing = true;
		socket->close(code, reason);
		QTimer::singleShot(kCloseMs, this, &Connection::drop);
	}
}

void Connection::drop()
{
	closing = true;
	socket->flush();
	socket->abort();
}

/**
 * The socket's bytesToWrite() leaves out what is encrypted already. A client answers a ping when it has read everything
 * before it, so the pong tells how far it has read.
 */
void Connection::countSent(qint64 bytes)
{
	sent += bytes;
	if (sent - asked >= kPingEvery) {
		asked = sent;
		socket->ping(QByteArray::number(sent));
	}
	if (sent - read > kMostUnread) {
		// Not from within the caller's sending.
		QMetaObject::invokeMethod(this, &Connection::drop, Qt::QueuedConnection);
	}
}

void Connection::onPong(const QByteArray &payload)
{
	const qint64 confirmed = payload.toLongLong();
	if (confirmed > read && confirmed <= asked) {
		read = confirmed;
	}
}
