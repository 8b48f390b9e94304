// SPDX-License-Identifier: GPL-2.0-or-later
#pragma once

#include <QByteArray>
#include <QElapsedTimer>
#include <QHostAddress>
#include <QList>
#include <QObject>
#include <QString>
#include <QTcpServer>
#include <QTimer>

#include <memory>
#include <vector>

class QTcpSocket;

/**
 * Stands between a client and a service on the loopback interface and does to their bytes what networks do. It looks
 * at no byte, so TLS goes through it as it is. Runs on the thread that made it; faults take effect at once and last
 * until they are taken back.
 */
class FaultProxy : public QObject {
public:
	/** Connections go on to `servicePort` of 127.0.0.1. */
	explicit FaultProxy(quint16 servicePort, const QHostAddress &address = QHostAddress::LocalHost);
	~FaultProxy() override;

	/** Its address with the path "/ws/audio-pipeline". */
	QString url(const QString &scheme, const QString &host = QStringLiteral("localhost")) const;

	/** The port is closed: the system refuses connections. */
	void refuse();
	/** The same port is open again. */
	void listenAgain();
	/** Connections are accepted, and nothing is ever said on them. */
	void setSilent(bool silent) { silentOnAccept = silent; }

	/** Every connection ends as if the peer's machine had forgotten it. */
	void reset();
	/** The service's side says that it will send no more; the client's bytes still go up. */
	void halfClose();

	/** No byte passes in either direction, and nothing is lost. */
	void setStalled(bool stalled);
	/**
	 * Nothing more is taken from the client than the system's buffers hold, as on a line that has stalled: what it
	 * sends waits on its side. What comes from the service still passes.
	 */
	void setBlocked(bool blocked);
	/** Bytes pass so many milliseconds late, in both directions. */
	void setDelay(int ms) { delayMs = ms; }
	/** So many bytes a second pass in each direction; 0 for no limit. */
	void setRate(int bytesPerSecond) { rate = bytesPerSecond; }
	/** What comes from the service is cut into segments of so many bytes; 0 for none. */
	void setPieces(int bytes) { pieceBytes = bytes; }
	/** What comes from the service is held back until it is released, in one piece. */
	void setHeld(bool held);
	/** Bytes that have come from the service and not gone on yet, over all connections. */
	qint64 waitingDown() const;

	/** Sends bytes to the client of the newest connection as if they were the service's. */
	void inject(const QByteArray &bytes);

	/** Connections accepted so far. */
	int connections = 0;
	/** Connections that are open on the client's side. */
	int open() const;
	/** Bytes that have passed, over all connections. */
	qint64 bytesUp = 0;
	qint64 bytesDown = 0;

private:
	/** Bytes that have come in and wait to be passed on. */
	struct Batch {
		qint64 dueMs;
		QByteArray bytes;
	};
	struct Pair {
		std::unique_ptr<QTcpSocket> client;
		std::unique_ptr<QTcpSocket> service;
		QList<Batch> up;
		QList<Batch> down;
		double allowanceUp = 0;
		double allowanceDown = 0;
	};

	void accept();
	void receive(QTcpSocket &from, QList<Batch> &queue);
	void pump();
	qint64 pass(QList<Batch> &queue, QTcpSocket &to, double &allowance, int piece);

	QTcpServer server;
	const quint16 servicePort;
	const QHostAddress address;
	quint16 port = 0;
	std::vector<std::unique_ptr<Pair>> pairs;
	QTimer timer;
	QElapsedTimer clock;
	qint64 lastPumpMs = 0;
	bool silentOnAccept = false;
	bool stalledBoth = false;
	bool blockedUp = false;
	bool heldDown = false;
	int delayMs = 0;
	int rate = 0;
	int pieceBytes = 0;
};
