// SPDX-License-Identifier: GPL-2.0-or-later
#include "loopback-service.h"

#include <QTcpSocket>
#include <QWebSocket>

LoopbackService::LoopbackService(const std::optional<QSslConfiguration> &certificate)
	: server(QStringLiteral("loopback"),
		 certificate ? QWebSocketServer::SecureMode : QWebSocketServer::NonSecureMode)
{
	if (certificate) {
		server.setSslConfiguration(*certificate);
	}
	connect(&server, &QWebSocketServer::newConnection, this, &LoopbackService::accept);
	if (!server.listen(QHostAddress::LocalHost)) {
		qFatal("no loopback server: %s", qPrintable(server.errorString()));
	}
}

LoopbackService::~LoopbackService()
{
	for (QWebSocket *peer : peers) {
		peer->disconnect(this);
		delete peer;
	}
}

QString LoopbackService::url() const
{
	const bool secure = server.secureMode() == QWebSocketServer::SecureMode;
	return QStringLiteral("%1://localhost:%2/ws/audio-pipeline")
		.arg(secure ? QStringLiteral("wss") : QStringLiteral("ws"))
		.arg(server.serverPort());
}

void LoopbackService::send(const QString &text)
{
	peer()->sendTextMessage(text);
}

void LoopbackService::sendFrame(const QByteArray &frame)
{
	peer()->sendBinaryMessage(frame);
}

void LoopbackService::accept()
{
	QWebSocket *peer = server.nextPendingConnection();
	peers.append(peer);
	requests.append(peer->request());
	connect(peer, &QWebSocket::textMessageReceived, this, [this](const QString &text) { texts.append(text); });
	connect(peer, &QWebSocket::binaryMessageReceived, this,
		[this](const QByteArray &frame) { frames.append(frame); });
	connect(peer, &QWebSocket::disconnected, this, [this, peer] {
		const bool dropped = peer->error() == QAbstractSocket::RemoteHostClosedError;
		closeCodes.append(dropped ? QWebSocketProtocol::CloseCodeAbnormalDisconnection : peer->closeCode());
	});
}

RawServer::RawServer(const QByteArray &answer, After after)
{
	connect(&server, &QTcpServer::newConnection, this, [this, answer, after] {
		++connections;
		QTcpSocket *peer = server.nextPendingConnection();
		connect(peer, &QTcpSocket::readyRead, this, [peer, answer, after] {
			peer->readAll();
			peer->write(answer);
			if (after == After::Close) {
				peer->disconnectFromHost();
			}
		});
	});
	if (!server.listen(QHostAddress::LocalHost)) {
		qFatal("no loopback server: %s", qPrintable(server.errorString()));
	}
}

QString RawServer::url(const QString &scheme) const
{
	return QStringLiteral("%1://localhost:%2/").arg(scheme).arg(server.serverPort());
}
