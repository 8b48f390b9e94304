// SPDX-License-Identifier: GPL-2.0-or-later
#pragma once

#include <QByteArray>
#include <QList>
#include <QNetworkRequest>
#include <QObject>
#include <QSslConfiguration>
#include <QString>
#include <QStringList>
#include <QTcpServer>
#include <QWebSocketServer>

#include <optional>

class QWebSocket;

/**
 * The far side of the wire for tests: a WebSocket server on the loopback interface that keeps what it hears and sends
 * what it is told. It answers nothing by itself. Runs on the thread that made it.
 */
class LoopbackService : public QObject {
public:
	/** With a certificate it speaks wss, without one ws. */
	explicit LoopbackService(const std::optional<QSslConfiguration> &certificate = std::nullopt);
	~LoopbackService() override;

	/** Its address, with the host "localhost" and the path "/ws/audio-pipeline". */
	QString url() const;

	/** The newest connection; null before the first. */
	QWebSocket *peer() const { return peers.isEmpty() ? nullptr : peers.last(); }
	void send(const QString &text);
	void sendFrame(const QByteArray &frame);

	/** Opening requests, one for each connection that came up. */
	QList<QNetworkRequest> requests;
	/** What was received on all connections, in order. */
	QStringList texts;
	QList<QByteArray> frames;
	/** Close codes of the connections that ended, in order of their ends; 1006 for one dropped without a word. */
	QList<int> closeCodes;

private:
	void accept();

	QWebSocketServer server;
	QList<QWebSocket *> peers;
};

/** A TCP server on the loopback interface that answers the first bytes of each connection with fixed bytes. */
class RawServer : public QObject {
public:
	enum class After { Stay, Close };
	RawServer(const QByteArray &answer, After after);

	/** Its address with the given scheme and the host "localhost". */
	QString url(const QString &scheme = QStringLiteral("ws")) const;

	int connections = 0;

private:
	QTcpServer server;
};
