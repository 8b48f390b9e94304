// SPDX-License-Identifier: GPL-3.0-or-later
#include "server.h"

#include "session/scripted-session.h"

#include <QHostAddress>

namespace {

const QString kPath = QStringLiteral("/ws/audio-pipeline");

} // namespace

Server::Server(const QSslConfiguration &tls, Settings settings_, EngineRoom *engines_, EventLog &events_,
	       Recorder &recorder_, QObject *parent)
	: QObject(parent), listener(QStringLiteral("talvora-local-service"), QWebSocketServer::SecureMode),
	  settings(std::move(settings_)), engines(engines_), events(events_), recorder(recorder_)
{
	settings.session.nextClipId = [this] { return ++lastClipId; };
	listener.setSslConfiguration(tls);
	listener.setHandshakeTimeout(settings.session.authTimeoutMs);
	connect(&listener, &QWebSocketServer::newConnection, this, &Server::accept);
}

Server::~Server()
{
	listener.close();
	for (Connection *connection : std::as_const(connections)) {
		disconnect(connection, nullptr, this, nullptr);
		connection->close(QWebSocketProtocol::CloseCodeGoingAway);
		delete connection;
	}
}

bool Server::listen(quint16 port)
{
	return listener.listen(QHostAddress::LocalHost, port);
}

QString Server::url() const
{
	return QStringLiteral("wss://localhost:%1%2").arg(listener.serverPort()).arg(kPath);
}

void Server::accept()
{
	while (QWebSocket *socket = listener.nextPendingConnection()) {
		auto *connection = new Connection(++lastConnection, socket, this);
		const int number = connection->number();
		connections.append(connection);
		recorder.opened(number, connection->path(), connection->userAgent());
		events.write("connected", number);
		connect(connection, &Connection::ended, this, [this, connection, number](int closeCode) {
			recorder.closed(number, closeCode);
			events.write("disconnected", number, {{"code", closeCode}});
			connections.removeOne(connection);
			connection->deleteLater();
		});
		connect(connection, &Connection::textReceived, this,
			[this, number](const QString &text) { recorder.text(number, text); });
		connect(connection, &Connection::binaryReceived, this,
			[this, number](const QByteArray &frame) { recorder.binary(number, frame); });
		startSession(*connection);
	}
}

/** The session is a child of its connection and ends with it. */
void Server::startSession(Connection &connection)
{
	if (connection.path() != kPath) {
		connection.close(QWebSocketProtocol::CloseCodePolicyViolated, "No such path");
	} else if (connections.size() > kMostConnections) {
		connection.close(QWebSocketProtocol::CloseCodePolicyViolated, "Too many connections");
	} else if (settings.script) {
		new ScriptedSession(connection, settings.script->forConnection(connection.number()), events,
				    &connection);
	} else {
		new LiveSession(connection, *engines, events, settings.session, &connection);
	}
}
