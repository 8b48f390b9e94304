// SPDX-License-Identifier: GPL-3.0-or-later
#include "sign-in/http-server.h"

#include <QHostAddress>
#include <QPointer>
#include <QTimer>

#include <memory>

namespace {

const char *reason(int status)
{
	switch (status) {
	case 200:
		return "OK";
	case 302:
		return "Found";
	case 400:
		return "Bad Request";
	case 401:
		return "Unauthorized";
	case 404:
		return "Not Found";
	case 405:
		return "Method Not Allowed";
	case 413:
		return "Content Too Large";
	case 415:
		return "Unsupported Media Type";
	case 423:
		return "Locked";
	case 431:
		return "Request Header Fields Too Large";
	default:
		return "Internal Server Error";
	}
}

QByteArray serialised(const HttpResponse &response)
{
	QByteArray text = "HTTP/1.1 " + QByteArray::number(response.status) + ' ' + reason(response.status) + "\r\n";
	text += "Content-Type: " + response.contentType + "\r\n";
	text += "Content-Length: " + QByteArray::number(response.body.size()) + "\r\n";
	text += "Cache-Control: no-store\r\nX-Content-Type-Options: nosniff\r\nConnection: close\r\n";
	for (const auto &[name, value] : response.headers) {
		text += name + ": " + value + "\r\n";
	}
	return text + "\r\n" + response.body;
}

} // namespace

HttpServer::HttpServer(const QSslConfiguration &tls, Handler handler, int timeoutMs, QObject *parent)
	: QObject(parent), m_handler(std::move(handler)), m_timeoutMs(timeoutMs)
{
	m_listener.setSslConfiguration(tls);
	m_listener.setHandshakeTimeout(timeoutMs);
	connect(&m_listener, &QTcpServer::pendingConnectionAvailable, this, &HttpServer::accept);
}

HttpServer::~HttpServer()
{
	m_listener.close();
	// Deleting a socket emits signals, whose handlers must not run any more.
	const QList<QSslSocket *> sockets = findChildren<QSslSocket *>();
	for (QSslSocket *socket : sockets) {
		disconnect(socket, nullptr, this, nullptr);
		delete socket;
	}
}

bool HttpServer::listen(quint16 port)
{
	return m_listener.listen(QHostAddress::LocalHost, port);
}

void HttpServer::accept()
{
	while (QTcpSocket *pending = m_listener.nextPendingConnection()) {
		auto *socket = qobject_cast<QSslSocket *>(pending);
		if (!socket || m_connections >= kMostConnections) {
			pending->abort();
			pending->deleteLater();
			continue;
		}
		socket->setParent(this);
		++m_connections;
		connect(socket, &QObject::destroyed, this, [this] { --m_connections; });
		serve(socket);
	}
}

void HttpServer::serve(QSslSocket *socket)
{
	auto *deadline = new QTimer(socket);
	deadline->setSingleShot(true);
	connect(deadline, &QTimer::timeout, socket, [socket] {
		socket->abort();
		socket->deleteLater();
	});
	deadline->start(m_timeoutMs);
	connect(socket, &QSslSocket::disconnected, socket, &QObject::deleteLater);
	connect(socket, &QSslSocket::errorOccurred, socket, &QSslSocket::abort);
	const auto reader = std::make_shared<HttpReader>();
	const auto read = [this, socket, deadline, reader] {
		switch (reader->feed(socket->readAll())) {
		case HttpReader::State::Reading:
			return;
		case HttpReader::State::Refused:
			disconnect(socket, &QSslSocket::readyRead, this, nullptr);
			send(socket,
			     {reader->status(), "text/plain; charset=utf-8", "The request is not valid.\n", {}});
			return;
		case HttpReader::State::Done:
			disconnect(socket, &QSslSocket::readyRead, this, nullptr);
			deadline->stop();
			m_handler(reader->request(), [this, alive = QPointer<QSslSocket>(socket), deadline,
						      ms = m_timeoutMs](const HttpResponse &response) {
				if (alive) {
					deadline->start(ms);
					send(alive, response);
				}
			});
			return;
		}
	};
	connect(socket, &QSslSocket::readyRead, this, read);
	// Bytes that came with the end of the handshake have been signalled before readyRead was connected.
	read();
}

void HttpServer::send(QSslSocket *socket, const HttpResponse &response)
{
	socket->write(serialised(response));
	socket->disconnectFromHost();
}
