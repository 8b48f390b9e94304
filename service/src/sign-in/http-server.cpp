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

HttpServer::HttpServer(const QSslConfiguration &tls, Handler handler_, int timeoutMs_, QObject *parent)
	: QObject(parent), handler(std::move(handler_)), timeoutMs(timeoutMs_)
{
	listener.setSslConfiguration(tls);
	listener.setHandshakeTimeout(timeoutMs);
	connect(&listener, &QTcpServer::pendingConnectionAvailable, this, &HttpServer::accept);
}

HttpServer::~HttpServer()
{
	listener.close();
	// Deleting a socket emits signals, whose handlers must not run any more.
	const QList<QSslSocket *> sockets = findChildren<QSslSocket *>();
	for (QSslSocket *socket : sockets) {
		disconnect(socket, nullptr, this, nullptr);
		delete socket;
	}
}

bool HttpServer::listen(quint16 port)
{
	return listener.listen(QHostAddress::LocalHost, port);
}

void HttpServer::accept()
{
	while (QTcpSocket *pending = listener.nextPendingConnection()) {
		auto *socket = qobject_cast<QSslSocket *>(pending);
		if (!socket || connections >= kMostConnections) {
			pending->abort();
			pending->deleteLater();
			continue;
		}
		socket->setParent(this);
		++connections;
		connect(socket, &QObject::destroyed, this, [this] { --connections; });
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
	deadline->start(timeoutMs);
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
			handler(reader->request(), [this, alive = QPointer<QSslSocket>(socket), deadline,
						    ms = timeoutMs](const HttpResponse &response) {
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
