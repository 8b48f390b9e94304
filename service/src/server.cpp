// SPDX-License-Identifier: GPL-3.0-or-later
#include "server.h"

#include "session/scripted-session.h"

#include <QHostAddress>

namespace {

const QString kPath = QStringLiteral("/ws/audio-pipeline");

} // namespace

Server::Server(const QSslConfiguration &tls, Settings settings, EngineRoom *engines, EventLog &events,
	       Recorder &recorder, QObject *parent)
	: QObject(parent), m_listener(QStringLiteral("talvora-local-service"), QWebSocketServer::SecureMode),
	  m_settings(std::move(settings)), m_engines(engines), m_events(events), m_recorder(recorder)
{
	m_settings.session.nextClipId = [this] { return ++m_lastClipId; };
	m_listener.setSslConfiguration(tls);
	m_listener.setHandshakeTimeout(m_settings.session.authTimeoutMs);
	connect(&m_listener, &QWebSocketServer::newConnection, this, &Server::accept);
}

Server::~Server()
{
	m_listener.close();
	for (Connection *connection : std::as_const(m_connections)) {
		disconnect(connection, nullptr, this, nullptr);
		connection->close(QWebSocketProtocol::CloseCodeGoingAway);
		delete connection;
	}
}

bool Server::listen(quint16 port)
{
	return m_listener.listen(QHostAddress::LocalHost, port);
}

QString Server::url() const
{
	return QStringLiteral("wss://localhost:%1%2").arg(m_listener.serverPort()).arg(kPath);
}

void Server::accept()
{
	while (QWebSocket *socket = m_listener.nextPendingConnection()) {
		auto *connection = new Connection(++m_lastConnection, socket, this);
		const int number = connection->number();
		m_connections.append(connection);
		m_recorder.opened(number, connection->path(), connection->userAgent());
		m_events.write("connected", number);
		connect(connection, &Connection::ended, this, [this, connection, number](int closeCode) {
			m_recorder.closed(number, closeCode);
			m_events.write("disconnected", number, {{"code", closeCode}});
			m_connections.removeOne(connection);
			connection->deleteLater();
		});
		connect(connection, &Connection::textReceived, this,
			[this, number](const QString &text) { m_recorder.text(number, text); });
		connect(connection, &Connection::binaryReceived, this,
			[this, number](const QByteArray &frame) { m_recorder.binary(number, frame); });
		startSession(*connection);
	}
}

// The session is a child of its connection and ends with it.
void Server::startSession(Connection &connection)
{
	if (connection.path() != kPath) {
		connection.close(QWebSocketProtocol::CloseCodePolicyViolated, "No such path");
	} else if (m_connections.size() > kMostConnections) {
		connection.close(QWebSocketProtocol::CloseCodePolicyViolated, "Too many connections");
	} else if (m_settings.script) {
		new ScriptedSession(connection, m_settings.script->forConnection(connection.number()), m_events,
				    &connection);
	} else {
		new LiveSession(connection, *m_engines, m_events, m_settings.session, &connection);
	}
}
