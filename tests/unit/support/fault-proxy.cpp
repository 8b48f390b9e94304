// SPDX-License-Identifier: GPL-2.0-or-later
#include "fault-proxy.h"

#include <QTcpSocket>

#include <algorithm>
#include <utility>

#include <sys/socket.h>

FaultProxy::FaultProxy(quint16 onward, const QHostAddress &own) : servicePort(onward), address(own)
{
	connect(&server, &QTcpServer::newConnection, this, &FaultProxy::accept);
	if (!server.listen(address)) {
		qFatal("no proxy: %s", qPrintable(server.errorString()));
	}
	port = server.serverPort();
	// What a blocked client has sent must not disappear in megabytes of the system's memory. Connections inherit
	// it.
	constexpr int kSmallestBuffer = 4096;
	setsockopt(static_cast<int>(server.socketDescriptor()), SOL_SOCKET, SO_RCVBUF, &kSmallestBuffer,
		   sizeof(kSmallestBuffer));
	clock.start();
	timer.setTimerType(Qt::PreciseTimer);
	timer.setInterval(2);
	connect(&timer, &QTimer::timeout, this, &FaultProxy::pump);
	timer.start();
}

FaultProxy::~FaultProxy()
{
	for (const auto &pair : pairs) {
		pair->client->disconnect(this);
		pair->service->disconnect(this);
	}
}

QString FaultProxy::url(const QString &scheme, const QString &host) const
{
	return QStringLiteral("%1://%2:%3/ws/audio-pipeline").arg(scheme, host).arg(port);
}

void FaultProxy::refuse()
{
	server.close();
}

void FaultProxy::listenAgain()
{
	if (!server.listen(address, port)) {
		qFatal("the proxy's port was lost: %s", qPrintable(server.errorString()));
	}
}

void FaultProxy::reset()
{
	for (const auto &pair : pairs) {
		// Closing a connection that lingers for no time discards it with a reset.
		constexpr linger atOnce{1, 0};
		setsockopt(static_cast<int>(pair->client->socketDescriptor()), SOL_SOCKET, SO_LINGER, &atOnce,
			   sizeof(atOnce));
		pair->client->abort();
		pair->service->abort();
	}
}

void FaultProxy::halfClose()
{
	for (const auto &pair : pairs) {
		shutdown(static_cast<int>(pair->client->socketDescriptor()), SHUT_WR);
	}
}

void FaultProxy::setStalled(bool stalled)
{
	stalledBoth = stalled;
}

void FaultProxy::setBlocked(bool blocked)
{
	blockedUp = blocked;
	for (const auto &pair : pairs) {
		pair->client->setReadBufferSize(blocked ? 1 : 0);
		if (!blocked) {
			receive(*pair->client, pair->up);
		}
	}
}

qint64 FaultProxy::waitingDown() const
{
	qint64 bytes = 0;
	for (const auto &pair : pairs) {
		for (const Batch &batch : pair->down) {
			bytes += batch.bytes.size();
		}
	}
	return bytes;
}

void FaultProxy::setHeld(bool held)
{
	heldDown = held;
	if (!held) {
		for (const auto &pair : pairs) {
			QByteArray joined;
			for (const Batch &batch : pair->down) {
				joined.append(batch.bytes);
			}
			pair->down = {{0, joined}};
		}
	}
}

void FaultProxy::inject(const QByteArray &bytes)
{
	pairs.back()->down.append({0, bytes});
}

int FaultProxy::open() const
{
	return static_cast<int>(std::count_if(pairs.begin(), pairs.end(), [](const auto &pair) {
		return pair->client->state() == QAbstractSocket::ConnectedState;
	}));
}

void FaultProxy::accept()
{
	while (QTcpSocket *accepted = server.nextPendingConnection()) {
		++connections;
		accepted->setParent(nullptr);
		accepted->setSocketOption(QAbstractSocket::LowDelayOption, 1);
		pairs.push_back(std::make_unique<Pair>());
		Pair *pair = pairs.back().get();
		pair->client.reset(accepted);
		pair->service = std::make_unique<QTcpSocket>();
		if (silentOnAccept) {
			continue;
		}
		pair->service->connectToHost(QHostAddress::LocalHost, servicePort);
		connect(accepted, &QTcpSocket::readyRead, this, [this, pair] {
			if (!blockedUp) {
				receive(*pair->client, pair->up);
			}
		});
		connect(pair->service.get(), &QTcpSocket::readyRead, this,
			[this, pair] { receive(*pair->service, pair->down); });
		connect(accepted, &QTcpSocket::disconnected, this, [pair] { pair->service->disconnectFromHost(); });
		connect(pair->service.get(), &QTcpSocket::disconnected, this, [this, pair] {
			// What it said last arrives before its end.
			pump();
			pair->client->disconnectFromHost();
		});
		receive(*accepted, pair->up);
	}
}

void FaultProxy::receive(QTcpSocket &from, QList<Batch> &queue)
{
	const QByteArray bytes = from.readAll();
	if (!bytes.isEmpty()) {
		queue.append({clock.elapsed() + delayMs, bytes});
	}
}

void FaultProxy::pump()
{
	const qint64 now = clock.elapsed();
	const double allowed = static_cast<double>(rate * (now - std::exchange(lastPumpMs, now))) / 1000.0;
	if (stalledBoth) {
		return;
	}
	for (const auto &pair : pairs) {
		// A limit saves nothing up.
		pair->allowanceUp = std::min(pair->allowanceUp + allowed, std::max(allowed, 1.0));
		pair->allowanceDown = std::min(pair->allowanceDown + allowed, std::max(allowed, 1.0));
		if (pair->service->state() == QAbstractSocket::ConnectedState) {
			bytesUp += pass(pair->up, *pair->service, pair->allowanceUp, 0);
		}
		if (!heldDown && pair->client->state() == QAbstractSocket::ConnectedState) {
			bytesDown += pass(pair->down, *pair->client, pair->allowanceDown, pieceBytes);
		}
	}
}

qint64 FaultProxy::pass(QList<Batch> &queue, QTcpSocket &to, double &allowance, int piece)
{
	qint64 passed = 0;
	while (!queue.isEmpty() && queue.first().dueMs <= clock.elapsed()) {
		QByteArray &bytes = queue.first().bytes;
		qsizetype count = bytes.size();
		if (rate > 0) {
			count = std::min(count, static_cast<qsizetype>(allowance));
			allowance -= static_cast<double>(count);
		}
		if (piece > 0) {
			count = std::min<qsizetype>(count, piece);
		}
		if (count == 0 && !bytes.isEmpty()) {
			break;
		}
		to.write(bytes.first(count));
		to.flush();
		bytes.remove(0, count);
		passed += count;
		if (bytes.isEmpty()) {
			queue.removeFirst();
		} else {
			// The rest goes in a segment of its own.
			break;
		}
	}
	return passed;
}
