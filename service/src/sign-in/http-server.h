// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "sign-in/http-reader.h"

#include <QObject>
#include <QPair>
#include <QSslConfiguration>
#include <QSslServer>
#include <QSslSocket>

#include <functional>

/** What a request is answered with. */
struct HttpResponse {
	int status = 200;
	QByteArray contentType = "text/plain; charset=utf-8";
	QByteArray body;
	/** Further ones. */
	QList<QPair<QByteArray, QByteArray>> headers;
};

/** A small HTTPS server on the loopback interface: one request per connection, with limits on size and time. */
class HttpServer : public QObject {
	Q_OBJECT

public:
	/** To be called once, now or later, on this object's thread. */
	using Answer = std::function<void(const HttpResponse &response)>;
	using Handler = std::function<void(const HttpRequest &request, const Answer &answer)>;

	/** Connections at a time; further ones are closed at once. */
	static constexpr int kMostConnections = 32;

	/** A client is given `timeoutMs` for its request, and as long again to take the answer. */
	HttpServer(const QSslConfiguration &tls, Handler handler, int timeoutMs, QObject *parent = nullptr);
	~HttpServer() override;

	/** Listens on 127.0.0.1; port 0 takes a free one. False when the port is taken: see errorString(). */
	bool listen(quint16 port);
	[[nodiscard]] QString errorString() const { return listener.errorString(); }
	[[nodiscard]] quint16 port() const { return listener.serverPort(); }

private:
	void accept();
	void serve(QSslSocket *socket);
	void send(QSslSocket *socket, const HttpResponse &response);

	QSslServer listener;
	Handler handler;
	int timeoutMs;
	int connections = 0;
};
