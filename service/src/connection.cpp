// SPDX-License-Identifier: GPL-3.0-or-later
#include "connection.h"

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
		m_socket->sendTextMessage(text);
		dropWhenFlooded();
	}
}

void Connection::sendBinary(const QByteArray &frame)
{
	if (isOpen()) {
		m_socket->sendBinaryMessage(frame);
		dropWhenFlooded();
	}
}

void Connection::close(QWebSocketProtocol::CloseCode code, const QString &reason)
{
	if (isOpen()) {
		m_socket->close(code, reason);
		QTimer::singleShot(kCloseMs, this, &Connection::drop);
	}
}

void Connection::drop()
{
	m_socket->flush();
	m_socket->abort();
}

void Connection::dropWhenFlooded()
{
	if (m_socket->bytesToWrite() > kMostUnsent) {
		// Not from within the caller's sending.
		QMetaObject::invokeMethod(this, &Connection::drop, Qt::QueuedConnection);
	}
}
