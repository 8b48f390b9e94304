// SPDX-License-Identifier: GPL-3.0-or-later
#include "session/connection.h"

#include <QJsonDocument>
#include <QNetworkRequest>
#include <QTimer>
#include <QUrl>

namespace {

constexpr int kCloseMs = 5000;

} // namespace

Connection::Connection(int number, QWebSocket *socket, QObject *parent)
	: QObject(parent), m_number(number), m_socket(socket)
{
	m_socket->setParent(this);
	m_socket->setMaxAllowedIncomingFrameSize(kLongestMessage);
	m_socket->setMaxAllowedIncomingMessageSize(kLongestMessage);
	connect(m_socket, &QWebSocket::textMessageReceived, this, &Connection::textReceived);
	connect(m_socket, &QWebSocket::binaryMessageReceived, this, &Connection::binaryReceived);
	// After a message that it has refused, Qt (seen in 6.11) goes on parsing what follows for many seconds: end
	// that.
	connect(m_socket, &QWebSocket::aboutToClose, this, [this] {
		if (!m_closing) {
			drop();
		}
	});
	connect(m_socket, &QWebSocket::pong, this, [this](quint64, const QByteArray &payload) { onPong(payload); });
	connect(m_socket, &QWebSocket::disconnected, this, [this] { emit ended(m_socket->closeCode()); });
}

QString Connection::path() const
{
	return m_socket->requestUrl().path();
}

QString Connection::userAgent() const
{
	return QString::fromLatin1(m_socket->request().rawHeader("User-Agent"));
}

void Connection::sendJson(const QJsonObject &message)
{
	sendText(QString::fromUtf8(QJsonDocument(message).toJson(QJsonDocument::Compact)));
}

void Connection::sendText(const QString &text)
{
	if (isOpen()) {
		countSent(m_socket->sendTextMessage(text));
	}
}

void Connection::sendBinary(const QByteArray &frame)
{
	if (isOpen()) {
		countSent(m_socket->sendBinaryMessage(frame));
	}
}

void Connection::close(QWebSocketProtocol::CloseCode code, const QString &reason)
{
	if (isOpen()) {
		m_closing = true;
		m_socket->close(code, reason);
		QTimer::singleShot(kCloseMs, this, &Connection::drop);
	}
}

void Connection::drop()
{
	m_closing = true;
	m_socket->flush();
	m_socket->abort();
}

// The socket's bytesToWrite() leaves out what is encrypted already. A client answers a ping when it has read everything
// before it, so the pong tells how far it has read.
void Connection::countSent(qint64 bytes)
{
	m_sent += bytes;
	if (m_sent - m_asked >= kPingEvery) {
		m_asked = m_sent;
		m_socket->ping(QByteArray::number(m_sent));
	}
	if (m_sent - m_read > kMostUnread) {
		// Not from within the caller's sending.
		QMetaObject::invokeMethod(this, &Connection::drop, Qt::QueuedConnection);
	}
}

void Connection::onPong(const QByteArray &payload)
{
	const qint64 read = payload.toLongLong();
	if (read > m_read && read <= m_asked) {
		m_read = read;
	}
}
