// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "base/event-log.h"
#include "engines/engine-room.h"
#include "session/connection.h"
#include "session/live-session.h"
#include "session/recorder.h"
#include "session/script.h"

#include <QList>
#include <QObject>
#include <QSslConfiguration>
#include <QWebSocketServer>

#include <optional>

/** The service's address: accepts TLS WebSocket connections on the loopback interface and gives each a session. */
class Server : public QObject {
	Q_OBJECT

public:
	static constexpr quint16 kDefaultPort = 3002;
	/** Connections at a time; further ones are closed at once. */
	static constexpr int kMostConnections = 16;

	struct Settings {
		/** `nextClipId` is the server's. */
		SessionSettings session;
		/** Played instead of live sessions. */
		std::optional<script::Script> script;
	};

	/** `engines`, `events` and `recorder` outlive the server. `engines` may be null when there is a script. */
	Server(const QSslConfiguration &tls, Settings settings, EngineRoom *engines, EventLog &events,
	       Recorder &recorder, QObject *parent = nullptr);
	~Server() override;

	/** Listens on 127.0.0.1; port 0 takes a free one. False when the port is taken: see errorString(). */
	bool listen(quint16 port);
	[[nodiscard]] QString errorString() const { return listener.errorString(); }
	/** The address for clients, with the port in use. */
	[[nodiscard]] QString url() const;

private:
	void accept();
	void startSession(Connection &connection);

	QWebSocketServer listener;
	Settings settings;
	EngineRoom *engines;
	EventLog &events;
	Recorder &recorder;
	/** Children of this. */
	QList<Connection *> connections;
	int lastConnection = 0;
	int lastClipId = 0;
};
