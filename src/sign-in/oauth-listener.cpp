// SPDX-License-Identifier: GPL-2.0-or-later
#include "sign-in/oauth-listener.h"

#include "deployment.h"
#include "plugin-support.h"
#include "sign-in/http-request-head.h"
#include "sign-in/sign-in-page.h"

#include <QDesktopServices>
#include <QHostAddress>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTimer>
#include <QUrl>
#include <QUrlQuery>
#include <QUuid>
#include <QVariant>

#include <memory>
#include <optional>

namespace {

constexpr int kTimeoutSeconds = 120;

/** Connections kept at a time. A browser opens a few; programs on this machine could use up OBS's descriptors. */
constexpr qsizetype kMostConnections = 64;
/** Bytes that Qt reads ahead on a connection; more waits in the sender's socket. */
constexpr qint64 kMostUnread = 64 * 1024;

/** Ports tried before an attempt ends. That one is in use on ::1 happens; that all are is somebody's intent. */
constexpr int kMostPorts = 8;

/** Where a connection keeps the head it has received so far. */
constexpr const char *kBufferProperty = "_httpBuf";

/**
 * Takes a port of ::1, without listening, for as long as the socket lives.
 * @return false when another program has it; true as well on a machine without IPv6
 */
bool holdOnIpv6(QTcpSocket &socket, quint16 port)
{
	// QAbstractSocket::ShareAddress would let other programs bind the same port.
	return socket.bind(QHostAddress::LocalHostIPv6, port, QAbstractSocket::DontShareAddress) ||
	       socket.error() == QAbstractSocket::UnsupportedSocketOperationError ||
	       socket.error() == QAbstractSocket::SocketAddressNotAvailableError;
}

/**
 * A server on 127.0.0.1 that a browser finds as "localhost", and nobody else in its place.
 *
 * Browsers try ::1 first, where any account of this machine may have the port of the same number, and would be brought
 * the key. So it is held for as long as the server lives; a browser is refused there at once and goes on to 127.0.0.1.
 *
 * @param[out] error why there is none, when null is returned
 */
std::unique_ptr<QTcpServer> listenAsLocalhost(QString &error)
{
	for (int port = 0; port < kMostPorts; ++port) {
		auto server = std::make_unique<QTcpServer>();
		if (!server->listen(QHostAddress::LocalHost, 0)) {
			error = server->errorString();
			return nullptr;
		}
		auto *sameOnIpv6 = new QTcpSocket(server.get());
		if (holdOnIpv6(*sameOnIpv6, server->serverPort())) {
			return server;
		}
		error = sameOnIpv6->errorString();
	}
	return nullptr;
}

QUrl signInAddress(const QString &provider, quint16 port, const QString &state)
{
	QUrlQuery query;
	query.addQueryItem(QStringLiteral("redirect_uri"), QStringLiteral("http://localhost:%1/callback").arg(port));
	query.addQueryItem(QStringLiteral("state"), state);
	QUrl address(QStringLiteral("%1/%2").arg(QString::fromUtf8(kSignInBaseUrl), provider));
	address.setQuery(query);
	return address;
}

/** Takes what has arrived. Returns the head once it is whole, with what came after it; until then nothing. */
QByteArray receiveHead(QTcpSocket *socket)
{
	QByteArray buffer = socket->property(kBufferProperty).toByteArray();
	// With the property cleared this is the only reference, so that append() does not copy a long head.
	socket->setProperty(kBufferProperty, QByteArray());
	const qsizetype searched = buffer.size();
	buffer += socket->readAll();
	if (hasWholeRequestHead(buffer, searched)) {
		return buffer;
	}
	socket->setProperty(kBufferProperty, buffer);
	return {};
}

} // namespace

bool OAuthListener::startLogin(const QString &provider)
{
	cleanup();
	requestHandled = false;

	QString error;
	server = listenAsLocalhost(error).release();
	if (!server) {
		talvora_log(LOG_WARNING, "OAuthListener: failed to start server: %s", qUtf8Printable(error));
		Q_EMIT loginFailed(QStringLiteral("Failed to start local auth server"));
		cleanup();
		return false;
	}
	server->setParent(this);
	const quint16 port = server->serverPort();
	talvora_log(LOG_INFO, "OAuthListener: listening on port %u for %s login", static_cast<unsigned>(port),
		    qUtf8Printable(provider));
	connect(server, &QTcpServer::newConnection, this, &OAuthListener::onNewConnection);

	timeoutTimer = new QTimer(this);
	timeoutTimer->setSingleShot(true);
	// A Qt::CoarseTimer may be off by 5 percent: here six seconds.
	timeoutTimer->setTimerType(Qt::PreciseTimer);
	connect(timeoutTimer, &QTimer::timeout, this, &OAuthListener::onTimeout);
	timeoutTimer->start(kTimeoutSeconds * 1000);

	expectedState = QUuid::createUuid().toString(QUuid::WithoutBraces);
	const QUrl address = signInAddress(provider, port, expectedState);
	talvora_log(LOG_INFO, "OAuthListener: opening browser to %s",
		    qUtf8Printable(address.toString(QUrl::FullyEncoded)));
	if (!QDesktopServices::openUrl(address)) {
		talvora_log(LOG_WARNING, "OAuthListener: failed to open system browser");
		Q_EMIT loginFailed(QStringLiteral("Could not open your browser for login"));
		cleanup();
		return false;
	}
	return true;
}

void OAuthListener::abort()
{
	if (isListening()) {
		talvora_log(LOG_INFO, "OAuthListener: login aborted by user");
		Q_EMIT loginFailed(QStringLiteral("Login cancelled"));
	}
	cleanup();
}

bool OAuthListener::isListening() const
{
	return server && server->isListening();
}

void OAuthListener::onNewConnection()
{
	while (QTcpSocket *socket = server->nextPendingConnection()) {
		// The server is deleted at the end of the attempt, the connection when its answer has been sent.
		socket->setParent(this);
		socket->setReadBufferSize(kMostUnread);
		connect(socket, &QTcpSocket::readyRead, this, [this, socket] {
			if (requestHandled) {
				return;
			}
			const QByteArray raw = receiveHead(socket);
			if (!raw.isEmpty()) {
				requestHandled = true;
				handleRequest(socket, raw);
			}
		});
		connect(socket, &QTcpSocket::disconnected, socket, &QObject::deleteLater);
		dropOldestOfTooMany();
	}
}

void OAuthListener::dropOldestOfTooMany()
{
	auto open = findChildren<QTcpSocket *>(Qt::FindDirectChildrenOnly);
	// A connection that is closing still has an answer to send.
	open.removeIf([](const QTcpSocket *socket) { return socket->state() != QAbstractSocket::ConnectedState; });
	if (open.size() > kMostConnections) {
		open.first()->abort();
	}
}

void OAuthListener::onTimeout()
{
	talvora_log(LOG_WARNING, "OAuthListener: login timed out after %d seconds", kTimeoutSeconds);
	Q_EMIT loginFailed(QStringLiteral("Login timed out. Please try again."));
	cleanup();
}

void OAuthListener::handleRequest(QTcpSocket *socket, const QByteArray &raw)
{
	const std::optional<QUrl> target = readRequestTarget(raw);
	if (!target) {
		sendResponse(socket, 400, QStringLiteral("<h1>Bad Request</h1>"));
		return;
	}
	if (target->path(QUrl::FullyDecoded) != QStringLiteral("/callback")) {
		sendResponse(socket, 404, QStringLiteral("<h1>Not Found</h1>"));
		return;
	}

	const auto fail = [this, socket](int status, const QString &page, const QString &error) {
		sendResponse(socket, status, page);
		Q_EMIT loginFailed(error);
		cleanup();
	};
	const SignInCallback callback = readSignInCallback(*target);
	if (callback.state != expectedState) {
		talvora_log(LOG_WARNING, "OAuthListener: state mismatch (CSRF check failed)");
		fail(400, signInMismatchPage(), QStringLiteral("Security validation failed. Please try again."));
		return;
	}
	if (callback.error) {
		talvora_log(LOG_WARNING, "OAuthListener: auth error: %s", qUtf8Printable(*callback.error));
		fail(200, signInErrorPage(*callback.error), *callback.error);
		return;
	}
	if (callback.token.isEmpty()) {
		talvora_log(LOG_WARNING, "OAuthListener: callback received but no token param");
		fail(200, signInNoTokenPage(), QStringLiteral("No token received from auth server"));
		return;
	}
	talvora_log(LOG_INFO, "OAuthListener: login successful, token received (length=%d)",
		    static_cast<int>(callback.token.size()));
	sendResponse(socket, 200, signInSuccessPage());
	Q_EMIT loginSucceeded(callback.token, callback.maxTargetLanguages);
	cleanup();
}

void OAuthListener::sendResponse(QTcpSocket *socket, int status, const QString &body)
{
	const QByteArray content = body.toUtf8();
	// The reason phrase may be anything: browsers look at the number only.
	const QString head = QStringLiteral("HTTP/1.1 %1 OK\r\n"
					    "Content-Type: text/html; charset=utf-8\r\n"
					    "Content-Length: %2\r\n"
					    "Connection: close\r\n\r\n")
				     .arg(status)
				     .arg(content.size());
	socket->write(head.toUtf8() + content);
	socket->flush();
	socket->disconnectFromHost();
}

void OAuthListener::cleanup()
{
	if (timeoutTimer) {
		timeoutTimer->stop();
		timeoutTimer->deleteLater();
		timeoutTimer = nullptr;
	}
	if (server) {
		server->close();
		server->deleteLater();
		server = nullptr;
	}
	// The attempt is over: stop reading from its open connections, so that a late request is not taken for the next
	// attempt's.
	const auto sockets = findChildren<QTcpSocket *>(Qt::FindDirectChildrenOnly);
	for (QTcpSocket *socket : sockets) {
		disconnect(socket, &QTcpSocket::readyRead, this, nullptr);
	}
	talvora_log(LOG_INFO, "OAuthListener: cleaned up");
}
